// The language of labels: the host's word first, then the environment.
#include <algorithm>
#include <array>
#include <atomic>
#include <charconv>
#include <cstdlib>
#include <string>
#include <string_view>

#include "ternbase/ternbase.h"

namespace {

constexpr std::uint32_t kEnglish = 0x0409;

struct LocaleLanguage {
    std::string_view locale;  // lower case, subtags joined by "_"
    std::uint32_t languageId;
};

// The first entry whose subtags begin a locale's name wins, so a language alone stands behind its territories. Territories that
// have no label words of their own get the language's row: a Canadian or Swiss user is better served by French than by English.
constexpr std::array kLocales = {
    LocaleLanguage{"en", 0x0409},      LocaleLanguage{"de", 0x0407},    LocaleLanguage{"ro", 0x0418},
    LocaleLanguage{"fr", 0x040C},      LocaleLanguage{"ja", 0x0411},    LocaleLanguage{"ko", 0x0412},
    LocaleLanguage{"zh_hans", 0x0004}, LocaleLanguage{"zh_cn", 0x0804}, LocaleLanguage{"zh_sg", 0x1004},
    LocaleLanguage{"zh_hant", 0x7C04}, LocaleLanguage{"zh_tw", 0x0404}, LocaleLanguage{"zh_hk", 0x0C04},
    LocaleLanguage{"zh_mo", 0x1404},   LocaleLanguage{"zh", 0x0804},    LocaleLanguage{"ar_dz", 0x1401},
    LocaleLanguage{"ar_bh", 0x3C01},   LocaleLanguage{"ar_eg", 0x0C01}, LocaleLanguage{"ar_kw", 0x3401},
    LocaleLanguage{"ar_lb", 0x3001},   LocaleLanguage{"ar_ly", 0x1001}, LocaleLanguage{"ar_ma", 0x1801},
    LocaleLanguage{"ar_om", 0x2001},   LocaleLanguage{"ar_qa", 0x4001}, LocaleLanguage{"ar_sa", 0x0401},
    LocaleLanguage{"ar_sy", 0x2801},   LocaleLanguage{"ar_tn", 0x1C01}, LocaleLanguage{"ar_ae", 0x3801},
    LocaleLanguage{"ar_ye", 0x2401},   LocaleLanguage{"ar_jo", 0x2C01}, LocaleLanguage{"ar", 0x2C01},
};

std::atomic<std::uint32_t> hostLanguage{0};

std::string_view Environment(const char* name) {
    const char* value = std::getenv(name);
    return value ? std::string_view(value) : std::string_view();
}

std::uint32_t LanguageFromNumber(std::string_view text) {
    if (text.starts_with("0x") || text.starts_with("0X")) {
        text.remove_prefix(2);
    }
    std::uint32_t languageId = 0;
    const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), languageId, 16);
    const bool complete = error == std::errc() && end == text.data() + text.size();
    return complete && languageId <= 0xFFFF ? languageId : 0;
}

/** "zh_TW.UTF-8@stroke" becomes "zh_tw". */
std::string PlainLocale(std::string_view locale) {
    std::string plain(locale.substr(0, locale.find_first_of(".@")));
    for (char& c : plain) {
        if (c >= 'A' && c <= 'Z') {
            c = static_cast<char>(c - 'A' + 'a');
        } else if (c == '-') {
            c = '_';
        }
    }
    return plain;
}

std::uint32_t LanguageFromLocale(std::string_view locale) {
    const std::string plain = PlainLocale(locale);
    const auto found = std::find_if(kLocales.begin(), kLocales.end(), [&plain](const LocaleLanguage& entry) {
        return plain.starts_with(entry.locale) && (plain.size() == entry.locale.size() || plain[entry.locale.size()] == '_');
    });
    return found != kLocales.end() ? found->languageId : kEnglish;
}

}  // namespace

void TbHostSetUiLanguage(std::uint32_t languageId) {
    hostLanguage.store(languageId);
}

std::uint32_t TbUiLanguage() {
    if (const std::uint32_t languageId = hostLanguage.load()) {
        return languageId;
    }
    if (const std::uint32_t languageId = LanguageFromNumber(Environment("TERN_UI_LANGUAGE"))) {
        return languageId;
    }
    // As in POSIX, the first variable that is not empty decides alone, even with a language that has no labels here.
    for (const char* variable : {"LC_ALL", "LC_MESSAGES", "LANG"}) {
        if (const std::string_view locale = Environment(variable); !locale.empty()) {
            return LanguageFromLocale(locale);
        }
    }
    return kEnglish;
}
