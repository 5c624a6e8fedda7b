#include "fileformats/pst/common/storewalk.h"

#include <exception>
#include <string_view>

#include "fileformats/pst/common/storemessage.h"
#include "pstsdk/exceptions.h"
#include "pstsdk/nodes.h"
#include "pstsdk/pages.h"
#include "pstsdk/properties.h"

using pstsdk::node_info;
using pstsdk::shared_db_ptr;
using ternkit::Status;

namespace {

constexpr pstsdk::ulong kNormalFolderType = 2;
constexpr pstsdk::ulong kContentsTableType = 0x0E;
constexpr pstsdk::prop_id kDisplayName = 0x3001;
constexpr pstsdk::prop_id kContentCount = 0x3602;
constexpr std::u16string_view kFreeBusyFolder = u"Freebusy Data";
constexpr std::uint64_t kStepCost = 4096;
constexpr std::uint32_t kRowsKept = 1024;  // of a contents table

}  // namespace

StoreFolders::StoreFolders(const shared_db_ptr& db)
    : m_root(db->read_nbt_root()),
      m_end(pstsdk::btree_end<pstsdk::ulong, node_info>(*m_root)),
      m_at(pstsdk::btree_begin<pstsdk::ulong, node_info>(*m_root)) {}

std::optional<node_info> StoreFolders::next() {
    if (m_onFolder) {
        m_at.leaf->next(m_at);
    }
    m_onFolder = true;
    constexpr std::uint64_t kEntrySize = 32;
    for (; !(m_at == m_end); m_at.leaf->next(m_at)) {
        m_cost += kEntrySize;
        const node_info& info = m_at.leaf->get_value(m_at.pos);
        if ((info.id & pstsdk::node_type_mask) == kNormalFolderType) {
            return info;
        }
    }
    m_onFolder = false;
    return std::nullopt;
}

std::optional<pstsdk::const_table_row> StoreRows::next() {
    while (!m_contents || m_row == m_rows) {
        if (!enterFolder()) {
            return std::nullopt;
        }
    }
    m_cost += kStepCost;
    if (m_row % kRowsKept == 0) {
        (*m_contents)->forget_rows();
        m_db->trim_pages();
    }
    return (*m_contents)[m_row++];
}

bool StoreRows::enterFolder() {
    m_contents.reset();
    std::optional<node_info> folder;
    try {
        if (!m_folders) {
            m_folders.emplace(m_db);
        }
        folder = m_ended ? std::nullopt : m_folders->next();
    } catch (const std::exception&) {
        // Damage between the folders ends the walk where it stands.
    }
    m_ended = !folder;
    if (folder) {
        openContents(*folder);
    }
    return !m_ended;
}

void StoreRows::openContents(const node_info& folder) {
    m_cost += kStepCost;
    m_db->trim_pages();
    try {
        const pstsdk::property_bag bag(pstsdk::node(m_db, folder));
        pstsdk::table contents(m_db->lookup_node((folder.id & ~pstsdk::node_type_mask) | kContentsTableType));
        m_rows = contents->row_count();
        m_row = 0;
        m_contents.emplace(std::move(contents));
    } catch (const std::exception&) {
        // A folder without a usable table counts as empty.
    }
}

auto PassedMessages::find(const node_info& message) const -> const Passed* {
    const auto known = m_known.find({message.data_bid, message.subnode_bid});
    return known != m_known.end() ? &known->second : nullptr;
}

bool PassedMessages::knowsPageless(const node_info& message) const {
    const Passed* passed = find(message);
    return passed != nullptr && passed->status == ternkit::kAbsent;
}

Status PassedMessages::pass(const node_info& message, BodyKind& bodyKind) {
    const auto [known, isNew] = m_known.try_emplace({message.data_bid, message.subnode_bid});
    Passed& passed = known->second;
    if (isNew) {
        try {
            passed.status = PassStoreMessage({m_db, message}, passed.bodyKind);
        } catch (const std::exception&) {
            // Told below, as for every other row that names the message.
        }
    }
    if (passed.bodyKind != BodyKind::None) {
        bodyKind = passed.bodyKind;
    }
    if (!passed.status) {
        throw pstsdk::database_corrupt("message that cannot be read");
    }
    return *passed.status;
}

Status CountStorePages(std::int32_t& count, const shared_db_ptr& db) {
    std::uint32_t total = 0;
    StoreFolders folders(db);
    while (const auto folder = folders.next()) {
        const pstsdk::property_bag bag(pstsdk::node(db, *folder));
        if (bag.read_text(kDisplayName) != kFreeBusyFolder) {
            total += bag.read_4(kContentCount);
        }
    }
    count = static_cast<std::int32_t>(total);
    if (count < 1) {
        return ternkit::kBadArgument;
    }
    return PageTableFits(count) ? ternkit::kOk : ternkit::kNoMemory;
}

Status CountStoreMessages(MessagePageTableOwner& table, const shared_db_ptr& db) {
    std::int32_t count = 0;
    const Status status = CountStorePages(count, db);
    if (status != ternkit::kOk) {
        return status;
    }
    table.reset(MakeMessagePageTable(count));
    return table != nullptr ? ternkit::kOk : ternkit::kNoMemory;
}

Status WalkStoreToPage(MessagePageTable& table, const shared_db_ptr& db, std::uint32_t targetPage, BodyKind& bodyKind,
                       PstFilterData& filterData) {
    StoreRows rows(db);
    PassedMessages passedMessages(db);
    for (std::uint32_t page = 0; page <= targetPage;) {
        const auto row = rows.next();
        if (!row) {
            return ternkit::kOk;
        }
        Status status = ternkit::kAbsent;
        try {
            const node_info message = db->lookup_node_info(row->get_row_id());
            if (page == targetPage) {
                status = ExtractStoreMessage({db, message}, table.records[page], bodyKind, filterData, nullptr);
            } else {
                status = passedMessages.pass(message, bodyKind);
            }
        } catch (const std::exception&) {
            // The rest of the folder is given up; the next message takes the page number where the walk stands.
            rows.leaveFolder();
        }
        if (status < ternkit::kOk) {
            return status;
        }
        page += status != ternkit::kAbsent ? 1 : 0;
    }
    return ternkit::kOk;
}
