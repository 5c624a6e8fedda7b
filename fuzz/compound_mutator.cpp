#include <string_view>

#include "compound_mending.h"
#include "external/pole/compounddisk.h"
#include "mutation.h"
#include "mutators.h"

namespace fuzz {
namespace {

using Bytes = std::vector<std::uint8_t>;

// Names by which a reader of items looks for streams and storages.
constexpr std::array<std::string_view, 22> kNames{
    "__properties_version1.0",       "__substg1.0_0037001F",        "__substg1.0_0037001E", "__substg1.0_0C1A001F",
    "__substg1.0_0C1F001F",          "__substg1.0_0E04001F",        "__substg1.0_0E03001F", "__substg1.0_1000001F",
    "__substg1.0_1000001E",          "__substg1.0_10090102",        "__substg1.0_10130102", "__substg1.0_1013001F",
    "__substg1.0_37010102",          "__substg1.0_3701000D",        "__substg1.0_3704001F", "__substg1.0_3707001F",
    "__substg1.0_3712001F",          "__substg1.0_3713001F",        "__substg1.0_5D01001F", "__attach_version1.0_#00000000",
    "__attach_version1.0_#00000001", "__recip_version1.0_#00000000"};

template <typename Record>
void changeRecord(std::span<std::uint8_t> file, std::size_t place, void (*change)(Record&, Dice&), Dice& dice) {
    Record record;
    std::memcpy(&record, file.data() + place, sizeof(record));
    change(record, dice);
    std::memcpy(file.data() + place, &record, sizeof(record));
}

void changeEntry(DirectoryRecord& entry, Dice& dice) {
    if (dice.oneIn(3)) {
        const std::string_view name = dice.of(kNames);
        std::memset(entry.name, 0, sizeof(entry.name));
        for (std::size_t at = 0; at < name.size(); ++at) {
            entry.name[2 * at] = static_cast<std::uint8_t>(name[at]);
        }
        entry.nameLength = static_cast<std::uint16_t>(2 * name.size() + 2);
        return;
    }
    Bytes bytes(sizeof(entry));
    std::memcpy(bytes.data(), &entry, sizeof(entry));
    mutateNumber(std::span(bytes).subspan(dice.oneIn(3) ? 0 : kDirectoryNameSize), dice);
    std::memcpy(&entry, bytes.data(), sizeof(entry));
}

void changeStream(std::span<std::uint8_t> file, const CompoundMap& map, std::size_t place, Dice& dice) {
    DirectoryRecord entry;
    std::memcpy(&entry, file.data() + place, sizeof(entry));
    const std::vector<Stretch> stretches = stretchesOf(file, map, place);
    Bytes content;
    for (const Stretch& stretch : stretches) {
        content.insert(content.end(), file.data() + stretch.address, file.data() + stretch.address + stretch.size);
    }
    const std::size_t room = content.size();
    content.resize(std::min<std::size_t>(entry.streamSize, room));
    if (dice.oneIn(2)) {
        mutateNumber(content, dice);
    } else {
        mutateBytes(content, room, dice);
    }
    entry.streamSize = static_cast<std::uint32_t>(content.size());
    std::memcpy(file.data() + place, &entry, sizeof(entry));
    content.resize(room);
    auto from = content.begin();
    for (const Stretch& stretch : stretches) {
        std::copy_n(from, stretch.size, file.data() + stretch.address);
        from += static_cast<std::ptrdiff_t>(stretch.size);
    }
}

/// An entry of the directory, of a stream where one is soon found.
std::size_t anyStream(std::span<const std::uint8_t> file, const CompoundMap& map, Dice& dice) {
    std::size_t place = dice.of(map.directory);
    for (int tries = 0; tries < 4 && file[place + offsetof(DirectoryRecord, objectType)] != kObjectStream; ++tries) {
        place = dice.of(map.directory);
    }
    return place;
}

void changeSomething(std::span<std::uint8_t> file, Dice& dice) {
    mendCompoundFile(file);
    const CompoundMap map = mapCompoundFile(file);
    const std::size_t choice = dice.below(16);
    if (choice == 0 || map.fatEntries.empty() || map.directory.empty()) {
        mutateNumber(file.first(sizeof(CompoundHeaderRecord)), dice);
    } else if (choice == 1) {
        mutateNumber(file.subspan(dice.of(map.fatEntries), sizeof(std::uint32_t)), dice);
    } else if (choice == 2 && !map.miniFatEntries.empty()) {
        mutateNumber(file.subspan(dice.of(map.miniFatEntries), sizeof(std::uint32_t)), dice);
    } else if (choice <= 5) {
        changeRecord(file, dice.of(map.directory), changeEntry, dice);
    } else {
        changeStream(file, map, anyStream(file, map, dice), dice);
    }
}

}  // namespace

std::size_t mutateCompoundFile(std::uint8_t* data, std::size_t size, std::size_t maxSize, unsigned seed) {
    Dice dice(seed);
    if (size < sizeof(CompoundHeaderRecord) || dice.oneIn(16)) {
        size = LLVMFuzzerMutate(data, size, maxSize);
    } else {
        const std::span<std::uint8_t> file(data, size);
        for (std::size_t changes = 1 + dice.below(4); changes != 0; --changes) {
            changeSomething(file, dice);
        }
    }
    if (size >= sizeof(CompoundHeaderRecord) && !dice.oneIn(8)) {
        mendCompoundFile({data, size});
    }
    return size;
}

}  // namespace fuzz
