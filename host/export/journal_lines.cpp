#include "journal_lines.h"

#include <algorithm>
#include <array>
#include <limits>
#include <nlohmann/json.hpp>

#include "export_names.h"
#include "utf.h"

namespace ternview {
namespace {

// For reading: an ordered object looks for each member of a line among all those in front of it.
using nlohmann::json;
using nlohmann::ordered_json;

constexpr std::uint32_t kMostMessages = std::numeric_limits<std::int32_t>::max();
constexpr std::uint32_t kMostParts = 100'000;
constexpr std::size_t kMostFiles = 10'000'000;
constexpr std::size_t kLongestField = 1000;
constexpr std::size_t kLongestSentence = 4000;

constexpr std::array kEngines{HtmlEngine::kAuto, HtmlEngine::kEmbedded, HtmlEngine::kChromium};
constexpr std::array kFormats{ExportFormat::kPdf, ExportFormat::kPng, ExportFormat::kHtml, ExportFormat::kText};

/// Something in a line is not as it must be.
struct BadLine {};

void require(bool condition) {
    if (!condition) {
        throw BadLine{};
    }
}

// A path may hold any bytes, and JSON text only characters.
std::string packPath(std::string_view path) {
    constexpr std::string_view digits = "0123456789ABCDEF";
    std::string packed;
    for (const char byte : path) {
        const auto value = static_cast<unsigned char>(byte);
        if (value >= 0x20 && value < 0x7F && byte != '%') {
            packed += byte;
        } else {
            packed += {'%', digits[value >> 4], digits[value & 15]};
        }
    }
    return packed;
}

unsigned digitValue(char digit) {
    require((digit >= '0' && digit <= '9') || (digit >= 'A' && digit <= 'F'));
    return static_cast<unsigned>(digit <= '9' ? digit - '0' : digit - 'A' + 10);
}

std::string unpackPath(std::string_view packed) {
    std::string path;
    for (std::size_t i = 0; i < packed.size(); ++i) {
        if (packed[i] != '%') {
            path += packed[i];
            continue;
        }
        require(i + 2 < packed.size());
        path += static_cast<char>(digitValue(packed[i + 1]) << 4 | digitValue(packed[i + 2]));
        i += 2;
    }
    return path;
}

std::string shortened(const std::string& text, std::size_t most) {
    if (text.size() <= most) {
        return text;
    }
    std::string_view rest = text;
    while (text.size() - rest.size() < most) {
        rest.remove_prefix(readUtf8(rest).size);
    }
    return text.substr(0, text.size() - rest.size());
}

std::uint64_t readNumber(const json& object, const char* key, std::uint64_t least, std::uint64_t most) {
    const json& value = object.at(key);
    require(value.is_number_unsigned());
    const auto number = value.get<std::uint64_t>();
    require(number >= least && number <= most);
    return number;
}

std::uint32_t readNumber32(const json& object, const char* key, std::uint32_t least, std::uint32_t most) {
    return static_cast<std::uint32_t>(readNumber(object, key, least, most));
}

std::size_t readFile(const json& object, const char* key) {
    return readNumber(object, key, 0, kMostFiles);
}

std::string readText(const json& object, const char* key) {
    const auto found = object.find(key);
    return found == object.end() ? std::string() : found->get<std::string>();
}

std::string readName(const json& object, const char* key) {
    std::string name = readText(object, key);
    require(name.empty() || isSafeName(name));
    return name;
}

template <typename Choice, std::size_t Count>
Choice readChoice(const json& object, const char* key, const std::array<Choice, Count>& choices,
                  std::string_view (*name)(Choice)) {
    const std::string text = readText(object, key);
    const auto found = std::find_if(choices.begin(), choices.end(), [&](Choice choice) { return name(choice) == text; });
    require(found != choices.end());
    return *found;
}

ordered_json pack(const HeaderLine& line) {
    return {
        {"ternview-export", 1},
        {"format", formatName(line.options.format)},
        {"paper", line.options.paper},
        {"resolution", line.options.resolution},
        {"language", line.options.language},
        {"plainText", line.options.plainText},
        {"strict", line.options.strict},
        {"htmlEngine", engineName(line.options.htmlEngine)},
        {"index", line.indexName},
    };
}

HeaderLine readHeader(const json& object) {
    require(readNumber(object, "ternview-export", 1, 1) == 1);
    HeaderLine line;
    line.options.format = readChoice(object, "format", kFormats, formatName);
    line.options.htmlEngine = readChoice(object, "htmlEngine", kEngines, engineName);
    line.options.paper = readName(object, "paper");
    line.options.resolution = static_cast<int>(readNumber32(object, "resolution", 0, 10'000));
    line.options.language = readNumber32(object, "language", 0, 0xFFFF);
    line.options.plainText = object.at("plainText").get<bool>();
    line.options.strict = object.at("strict").get<bool>();
    line.indexName = readName(object, "index");
    require(line.indexName.starts_with("index") && line.indexName.ends_with(".html"));
    return line;
}

ordered_json pack(const FileLine& line) {
    ordered_json object{
        {"file", line.file},           {"path", packPath(line.identity.path)},
        {"size", line.identity.size},  {"changed", line.identity.changed},
        {"store", line.place.isStore},
    };
    if (line.place.isStore) {
        object["directory"] = line.place.directory;
    } else if (line.place.isKnown()) {
        object["number"] = line.place.number;
    }
    return object;
}

FileLine readFileLine(const json& object) {
    FileLine line;
    line.file = readFile(object, "file");
    line.identity.path = unpackPath(readText(object, "path"));
    line.identity.size = readNumber(object, "size", 0, std::numeric_limits<std::uint64_t>::max());
    line.identity.changed = object.at("changed").get<std::int64_t>();
    line.place.isStore = object.at("store").get<bool>();
    if (line.place.isStore) {
        line.place.directory = readName(object, "directory");
    } else if (object.contains("number")) {
        line.place.number = readNumber32(object, "number", 1, kMostMessages);
    }
    return line;
}

ordered_json pack(const TakenUpLine& line) {
    return {{"takenUp", line.file}};
}

ordered_json pack(const MessageLine& line) {
    const MessageRecord& record = line.record;
    ordered_json object{{"message", record.number}, {"of", line.file}};
    const auto put = [&object](const char* key, const std::string& text, std::size_t most) {
        if (!text.empty()) {
            object[key] = shortened(text, most);
        }
    };
    if (record.run > 1) {
        object["run"] = record.run;
    }
    if (record.parts > 0) {
        object["name"] = record.stem;
        object["parts"] = record.parts;
    }
    put("thumbnail", record.thumbnail, kLongestField);
    put("subject", record.subject, kLongestField);
    put("sender", record.sender, kLongestField);
    put("date", record.date, kLongestField);
    if (record.sentTime) {
        object["sent"] = *record.sentTime;
    }
    put("failure", record.failure, kLongestSentence);
    return object;
}

MessageLine readMessage(const json& object) {
    MessageLine line;
    line.file = readFile(object, "of");
    MessageRecord& record = line.record;
    record.number = readNumber32(object, "message", 1, kMostMessages);
    if (object.contains("run")) {
        record.run = readNumber32(object, "run", 1, kMostMessages - record.number + 1);
    }
    record.failure = readText(object, "failure");
    if (record.failure.empty()) {
        record.stem = readName(object, "name");
        require(isMessageStem(record.stem) && record.run == 1);
        record.parts = readNumber32(object, "parts", 1, kMostParts);
        record.thumbnail = readName(object, "thumbnail");
        require(record.thumbnail.empty() || isThumbnailName(record.thumbnail));
    }
    record.subject = readText(object, "subject");
    record.sender = readText(object, "sender");
    record.date = readText(object, "date");
    if (object.contains("sent")) {
        record.sentTime = object["sent"].get<std::int64_t>();
    }
    return line;
}

ordered_json pack(const ClosedLine& line) {
    ordered_json object{{"closed", line.file}};
    if (!line.failure.empty()) {
        object["failure"] = shortened(line.failure, kLongestSentence);
    }
    return object;
}

JournalLine readLine(const json& object) {
    require(object.is_object());
    if (object.contains("message")) {
        return readMessage(object);
    }
    if (object.contains("file")) {
        return readFileLine(object);
    }
    if (object.contains("takenUp")) {
        return TakenUpLine{readFile(object, "takenUp")};
    }
    if (object.contains("closed")) {
        return ClosedLine{readFile(object, "closed"), readText(object, "failure")};
    }
    return readHeader(object);
}

}  // namespace

std::string formatLine(const JournalLine& line) {
    const ordered_json object = std::visit([](const auto& kind) { return pack(kind); }, line);
    // Texts come out of mails and may hold bytes that are no UTF-8.
    return object.dump(-1, ' ', false, ordered_json::error_handler_t::replace) + "\n";
}

std::optional<JournalLine> parseLine(std::string_view text) {
    try {
        return readLine(json::parse(text));
    } catch (const nlohmann::json::exception&) {
        return std::nullopt;
    } catch (const BadLine&) {
        return std::nullopt;
    }
}

}  // namespace ternview
