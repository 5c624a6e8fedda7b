// The header block of an Internet message: lines with the message's fields in front of its body, in English whatever the
// language.
#pragma once

#include "fileformats/pst/common/mimemessage.h"

/**
 * Merges the header block into the body. A message without date, sender and recipients gets none.
 *
 * @return 1; -1 without memory; -9 when the body's "<body" tag has no end
 */
ternkit::Status ComposeMimeHeader(MimeMessage& message);
