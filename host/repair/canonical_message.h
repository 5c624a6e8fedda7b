// Writes an Internet message anew, in the form that the filter reads. Mail as it really is may have bare line feeds, no
// Content-Type, parameters without their quotes, empty parts, or its text in a kind of part that the filter does not know.
#pragma once

#include <optional>
#include <string>
#include <string_view>

namespace ternview {

struct CanonicalMessage {
    std::string bytes;
    bool hasText = true;  // false: the message has none, and says so in its place
};

/**
 * Reads a message leniently and writes its header fields, its texts (the HTML one of alternatives; several behind each other as
 * one) and the pictures that the HTML names as one message with CR LF line ends, in UTF-8. Attachments are left out.
 *
 * @param message the message as it came
 * @return nothing when there is no header field in it that a mail has, or nothing that could be shown
 */
std::optional<CanonicalMessage> canonicalMessage(std::string_view message);

/**
 * True when the filter, which keeps one text of a message and takes the last HTML or else the last plain one, would leave out
 * some of what a person is to read: a further text, the text in front of an attached one, or the plain text beside an empty HTML
 * one; when it would leave out a picture that the HTML names, or more of the HTML with it; or when a text would be read in
 * another charset than its part declares. A text or picture is decoded only where the rest leaves that open, as every message is
 * asked.
 */
bool losesText(std::string_view message);

}  // namespace ternview
