#include "fileformats/pst/common/headerlabels.h"

#include <algorithm>
#include <iterator>

#include "ternbase/ternbase.h"

namespace {

constexpr std::int32_t kWords = kLabelLow + 1;
constexpr char kUnknownWord[] = "Unknown";

struct LabelRow {
    std::uint32_t language;  // Windows LANGID
    const char* words[kWords];
};

// The blanks bring the words of a language to about one width. Documents are compared byte for byte, so odd spellings stay as
// they are. English comes first: it stands in for languages without a row.
constexpr LabelRow kRows[] = {
    // English
    {0x0409,
     {"From:      ", "To:        ", "Bcc:       ", "Cc:        ", "Sent:      ", "Subject:   ", "Importance:", "High", "Low"}},
    // German
    {0x0407,
     {"Von:       ", "An:        ", "Bcc:       ", "Cc:        ", "Gesendet:  ", "Betreff:   ", "Priorität: ", "Höch",
      "Niedrig"}},
    // Romanian
    {0x0418,
     {"De la:     ", "Către:     ", "Bcc:       ", "Cc:        ", "Trimis:    ", "Subiect:   ", "Importanță:", "Maxim", "Minim"}},
    // French
    {0x040C,
     {"De:        ", "À:         ", "Bcc:       ", "Cc:        ", "Envoyè:    ", "Objet:     ", "Importance:", "Haute",
      "Faible"}},
    // Japanese
    {0x0411, {"差出人:  ", "宛先:    ", "Bcc:    ", "抄送:   ", "送信日時:", "件名:    ", "重要度:  ", "高", "低"}},
    // Chinese, simplified
    {0x0804, {"发件人:  ", "收件人:  ", "Bcc:    ", "抄送:   ", "发送时间:", "主题:    ", "重要性:  ", "高", "低"}},
    // Chinese, traditional
    {0x0404, {"寄件者:  ", "收件者:  ", "Bcc:    ", "副本:   ", "寄件日期:", "主旨:    ", "重要性:  ", "高", "低"}},
    // Korean
    {0x0412, {"보낸 사람:", "받는 사람:", "Bcc:    ", "참조:   ", "보낸 날짜:", "제목:     ", "중요도:  ", "높음", "낮음"}},
    // Arabic
    {0x2C01, {"نمن :  ", "إلى :  ", "Bcc:   ", "نسخة:  ", "تاريخ الإرسال:", "الموضوع:", "الأهمية: ", "عالية", "منخفضة"}},
};

struct LanguageAlias {
    std::uint32_t language;
    std::uint32_t row;
};

// Languages that are served by another language's row: the territories of Chinese, and those of Arabic.
constexpr LanguageAlias kAliases[] = {
    {0x0004, 0x0804}, {0x7804, 0x0804}, {0x1004, 0x0804}, {0x0C04, 0x0404}, {0x7C04, 0x0404}, {0x1404, 0x0404}, {0x1401, 0x2C01},
    {0x3C01, 0x2C01}, {0x0C01, 0x2C01}, {0x3401, 0x2C01}, {0x3001, 0x2C01}, {0x1001, 0x2C01}, {0x1801, 0x2C01}, {0x2001, 0x2C01},
    {0x4001, 0x2C01}, {0x0401, 0x2C01}, {0x2801, 0x2C01}, {0x1C01, 0x2C01}, {0x3801, 0x2C01}, {0x2401, 0x2C01},
};

}  // namespace

const char* HeaderLabel(std::int32_t index) {
    if (index < 0 || index >= kWords) {
        return kUnknownWord;
    }
    std::uint32_t language = TbUiLanguage();
    const auto* alias = std::find_if(std::begin(kAliases), std::end(kAliases),
                                     [language](const LanguageAlias& a) { return a.language == language; });
    if (alias != std::end(kAliases)) {
        language = alias->row;
    }
    const auto* row =
        std::find_if(std::begin(kRows), std::end(kRows), [language](const LabelRow& r) { return r.language == language; });
    return (row != std::end(kRows) ? *row : kRows[0]).words[index];
}
