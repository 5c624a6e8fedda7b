// TERNVIEW_SANITIZED: the build reserves address space by the terabyte, which no limit on memory would survive.
#pragma once

#if defined(__SANITIZE_ADDRESS__)
#define TERNVIEW_SANITIZED 1
#elif defined(__has_feature)
#if __has_feature(address_sanitizer)
#define TERNVIEW_SANITIZED 1
#endif
#endif
