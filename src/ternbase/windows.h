// The few calls of the Windows interface that the module uses, with their meaning there.
#pragma once

#include <cstdint>

#include <ternkit/ternbase.h>

// Code pages. Counts are in bytes and UTF-16 units; flags are 0.

inline constexpr std::uint32_t kCodePageSymbol = 42;
inline constexpr std::uint32_t kCodePageUtf8 = 65001;

/** The system's own code page: 1252. */
TERNBASE_API std::uint32_t GetACP();
/**
 * Converts bytes of a code page to UTF-16.
 *
 * @param codePage code page; 0 means the system's own; an unknown one fails
 * @param count bytes, or -1 for NUL-terminated text, whose NUL is then converted too
 * @param out buffer, or null with a capacity of 0 to ask for the units needed
 * @return units written or needed; 0 on failure, also when they do not fit
 */
TERNBASE_API int MultiByteToWideChar(std::uint32_t codePage, std::uint32_t flags, const char* text, int count, char16_t* out,
                                     int capacity);
/**
 * Converts UTF-16 to bytes of a code page.
 *
 * @param defaultCharacter text for a character that the code page lacks, or null for "?"
 * @param usedDefault set to 1 when a character was lacking, else to 0; may be null
 */
TERNBASE_API int WideCharToMultiByte(std::uint32_t codePage, std::uint32_t flags, const char16_t* text, int count, char* out,
                                     int capacity, const char* defaultCharacter, int* usedDefault);

// Directories, for paths that the module made itself.

inline constexpr std::uint32_t kErrorAlreadyExists = 183;

/** Makes a directory inside the private temporary directory. Nonzero on success; GetLastError tells why not. */
TERNBASE_API int CreateDirectoryW(const char16_t* path, void* securityAttributes);
/** Removes an empty directory inside the private temporary directory. Nonzero on success. */
TERNBASE_API int RemoveDirectoryW(const char16_t* path);
/** Code of this thread's last failed call of this header. */
TERNBASE_API std::uint32_t GetLastError();

// Fonts and glyph coverage. Handles are owned by the caller until the matching delete.

struct LogFont {
    std::int32_t height;
    std::int32_t width;
    std::int32_t escapement;
    std::int32_t orientation;
    std::int32_t weight;
    std::uint8_t italic;
    std::uint8_t underline;
    std::uint8_t strikeOut;
    std::uint8_t charSet;
    std::uint8_t outPrecision;
    std::uint8_t clipPrecision;
    std::uint8_t quality;
    std::uint8_t pitchAndFamily;
    char16_t faceName[32];
};

struct DeviceContextTag;
struct FontTag;
using DeviceContext = DeviceContextTag*;
using FontHandle = FontTag*;
using ScriptCache = void*;

/** A memory device context, to be freed with TbDcDelete. */
TERNBASE_API DeviceContext TbDcCreate(void* reserved, int line, const char16_t* file);
TERNBASE_API void TbDcDelete(DeviceContext context, int line, const char16_t* file);
/** The font that the system matches for the face name; null on failure. To be freed with TbFontDelete. */
TERNBASE_API FontHandle TbFontCreate(const LogFont* font, int line, const char16_t* file);
TERNBASE_API void TbFontDelete(FontHandle font, int line, const char16_t* file);
/** Selects a font into the context and gives the one selected before, or null. */
TERNBASE_API FontHandle SelectObject(DeviceContext context, FontHandle font);
/**
 * Looks up the glyphs of a text in the context's font.
 *
 * @param cache in and out: null at first, freed with ScriptFreeCache
 * @param units count of UTF-16 units
 * @param glyphs receives one glyph index for each unit, or 0
 * @return 0 only when the font has a glyph for every unit's character; 1 otherwise; negative for a bad argument
 */
TERNBASE_API std::int32_t ScriptGetCMap(DeviceContext context, ScriptCache* cache, const char16_t* text, int units,
                                        std::uint32_t flags, std::uint16_t* glyphs);
TERNBASE_API std::int32_t ScriptFreeCache(ScriptCache* cache);
