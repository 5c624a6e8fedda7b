#include "mutation.h"
#include "mutators.h"
#include "pstsdk/disk.h"
#include "store_layout.h"
#include "store_mending.h"

namespace fuzz {
namespace {

using Bytes = std::vector<std::uint8_t>;

/// Changes the content of a block, in the form in which its reader sees it. Its size may change within its place.
void mutateBlock(std::span<std::uint8_t> store, const StoreMap& map, Dice& dice) {
    if (map.blocks.empty()) {
        return;
    }
    const auto encoding = static_cast<builder::Encoding>(map.encoding);
    const auto contentOf = [store, encoding](const StoreBlock& block) {
        const auto stored = store.subspan(block.address, block.size);
        Bytes content(stored.begin(), stored.end());
        if (block.isEncoded) {
            builder::decode(content, encoding, block.id);
        }
        return content;
    };
    const StoreBlock& block = dice.of(map.blocks);
    Bytes content = contentOf(block);
    if (dice.oneIn(16)) {
        content = contentOf(dice.of(map.blocks));
        content.resize(std::min(content.size(), block.capacity));
    } else if (dice.oneIn(2)) {
        mutateNumber(content, dice);
    } else {
        mutateBytes(content, block.capacity, dice);
    }
    if (block.isEncoded) {
        builder::encode(content, encoding, block.id);
    }
    std::copy(content.begin(), content.end(), store.begin() + static_cast<std::ptrdiff_t>(block.address));
    builder::putAt(store, block.entry, content.size(), 2);
}

/// Changes the entries of a page, its counters, or those in the header's root.
void mutatePage(std::span<std::uint8_t> store, const StoreMap& map, Dice& dice) {
    constexpr std::size_t kHeaderSize = 568;
    const bool isHeader = map.pages.empty() || dice.oneIn(8);
    const std::size_t address = isHeader ? 0 : dice.of(map.pages).address;
    const std::size_t size = isHeader ? kHeaderSize : pstsdk::disk::page_size;
    mutateNumber(store.subspan(address, std::min(size, store.size() - address)), dice);
}

}  // namespace

std::size_t mutateStore(std::uint8_t* data, std::size_t size, std::size_t maxSize, unsigned seed) {
    Dice dice(seed);
    const std::size_t choice = dice.below(16);
    if (choice == 0 || size == 0) {
        size = LLVMFuzzerMutate(data, size, maxSize);
    } else {
        const std::span<std::uint8_t> store(data, size);
        for (std::size_t changes = 1 + dice.below(4); changes != 0; --changes) {
            const StoreMap map = mapStore(store);
            if (choice <= 3) {
                mutatePage(store, map, dice);
            } else {
                mutateBlock(store, map, dice);
            }
        }
    }
    if (dice.oneIn(8)) {
        mendStoreHeader({data, size});
    } else {
        mendStore({data, size});
    }
    return size;
}

}  // namespace fuzz
