#include "fileformats/pst/common/messagerecord.h"

#include <new>

#include "ternbase/ternbase.h"

TB_SOURCE(u"src/fileformats/pst/common/pst")

bool PageTableFits(std::int32_t count) {
    return count >= 1 && static_cast<std::uint64_t>(count) <= TbMemBlockLimit() / sizeof(MessageRecord);
}

MessagePageTable* MakeMessagePageTable(std::int32_t count) {
    // The count is the store's own word, so it is held against the limit for blocks before records are made.
    if (!PageTableFits(count)) {
        return nullptr;
    }
    ScopedBlock holder(TbMemAlloc(1, sizeof(MessagePageTable), TB_HERE));
    if (!holder) {
        return nullptr;
    }
    MessageRecord* records = new (std::nothrow) MessageRecord[static_cast<std::size_t>(count)];
    if (records == nullptr) {
        return nullptr;
    }
    TbTrackNew(kTbTrackArray, records, TB_HERE);
    MessagePageTable* table = new (holder.block) MessagePageTable{count, records};
    holder.block = nullptr;
    return table;
}

void ReleaseMessagePageTable(MessagePageTable* table) {
    if (table == nullptr) {
        return;
    }
    TbTrackDelete(kTbTrackArray, table->records, TB_HERE);
    delete[] table->records;
    TbMemFree(table, TB_HERE);
}
