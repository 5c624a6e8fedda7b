// The header block as it stands in front of a message, written out once for all tests.
#pragma once

#include <string>

inline const std::string kHtmlRowStart =
    "<table style = 'border-collapse: collapse ; table-layout: fixed; width: 100%'><tr><td style = 'width:87pt; padding: 0px; "
    "vertical-align:top'><b><span lang = EN-US style = 'font-family:\"Calibri\",\"sans-serif\";mso-bidi-font-family:Calibri; "
    "color:black; mso-ansi-language:EN-US'>";
inline const std::string kHtmlRowMiddle =
    "</span></b></td><td style = 'padding: 0px'><span lang = EN-US style = 'font-family:\"Calibri\",\"sans-serif\";"
    "mso-bidi-font-family:Calibri; color:black; mso-ansi-language:EN-US; word-wrap: break-word;'>";
inline const std::string kHtmlRowEnd = "</span></td></tr></table>\r\n";
inline const std::string kHtmlSeparator = "<p class=MsoNormal><o:p>&nbsp;</o:p></p>";

inline std::string HtmlRow(const std::string& label, const std::string& value) {
    return kHtmlRowStart + label + kHtmlRowMiddle + value + kHtmlRowEnd;
}

inline std::string HtmlBlock(const std::string& rows) {
    return "<html>" + rows + kHtmlSeparator + "</html>";
}

// The blocks of MimeBuilder::addressed().
inline const std::string kAddressedPlain =
    "From:   \tAnn <ann@example.org>\r\nTo:     \tbob@example.org\r\nSent:   \tMon, 2 Feb 2026 10:00:00 +0100\r\n"
    "Subject:\tGreetings\r\n\r\n";
inline const std::string kAddressedHtml =
    HtmlBlock(HtmlRow("From:", "Ann &lt;ann@example.org&gt;") + HtmlRow("To:", "bob@example.org") +
              HtmlRow("Sent:", "Mon, 2 Feb 2026 10:00:00 +0100") + HtmlRow("Subject:", "Greetings"));

// A document from memory keeps the NUL that closes its text.
inline std::string Closed(std::string document) {
    document.push_back('\0');
    return document;
}
