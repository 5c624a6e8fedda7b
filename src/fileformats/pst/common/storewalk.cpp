#include "fileformats/pst/common/storewalk.h"

#include <exception>
#include <map>
#include <optional>
#include <string>
#include <string_view>
#include <utility>

#include "fileformats/pst/common/storemessage.h"
#include "pstsdk/exceptions.h"
#include "pstsdk/nodes.h"
#include "pstsdk/pages.h"
#include "pstsdk/properties.h"
#include "pstsdk/tables.h"

using pstsdk::node_info;
using pstsdk::shared_db_ptr;
using ternkit::Status;

namespace {

constexpr pstsdk::ulong kNormalFolderType = 2;
constexpr pstsdk::ulong kContentsTableType = 0x0E;
constexpr pstsdk::prop_id kDisplayName = 0x3001;
constexpr pstsdk::prop_id kContentCount = 0x3602;
constexpr std::u16string_view kFreeBusyFolder = u"Freebusy Data";

enum class Step { GoOn, End };

/// Visits the normal folders in node id order until one of them ends it.
template <typename Visit>
void eachFolder(const shared_db_ptr& db, const Visit& visit) {
    const auto root = db->read_nbt_root();
    const auto end = pstsdk::btree_end<pstsdk::ulong, node_info>(*root);
    for (auto at = pstsdk::btree_begin<pstsdk::ulong, node_info>(*root); !(at == end); at.leaf->next(at)) {
        const node_info& info = at.leaf->get_value(at.pos);
        if ((info.id & pstsdk::node_type_mask) == kNormalFolderType && visit(info) == Step::End) {
            return;
        }
    }
}

// The walk's state, which survives from folder to folder.
class StoreWalk {
public:
    StoreWalk(MessagePageTable& table, const shared_db_ptr& db, std::uint32_t targetPage, BodyKind& bodyKind,
              PstFilterData& filterData)
        : m_table(table), m_db(db), m_targetPage(targetPage), m_bodyKind(bodyKind), m_filterData(filterData) {}

    Status run() {
        try {
            eachFolder(m_db, [this](const node_info& info) { return visitFolder(info); });
        } catch (const std::exception&) {
            // Damage between the folders ends the walk where it stands.
        }
        return m_result;
    }

private:
    Step visitFolder(const node_info& info) {
        try {
            const pstsdk::property_bag bag(pstsdk::node(m_db, info));
            const pstsdk::table contents(m_db->lookup_node((info.id & ~pstsdk::node_type_mask) | kContentsTableType));
            const std::uint32_t rows = contents->row_count();
            for (std::uint32_t row = 0; row < rows && m_cursor < m_table.count; ++row) {
                if (visitMessage({m_db, contents[row]}) == Step::End) {
                    return Step::End;
                }
            }
        } catch (const std::exception&) {
            // The rest of the folder is given up; the next message takes the page number where the walk stands.
        }
        return Step::GoOn;
    }

    Step visitMessage(const StoreRow& row) {
        const bool isTarget = static_cast<std::uint32_t>(m_cursor) == m_targetPage;
        const Status status =
            isTarget ? ExtractStoreMessage(row, m_table.records[m_cursor], m_bodyKind, MessageRole::Target, m_filterData)
                     : passMessage(row);
        if (status < ternkit::kOk) {
            m_result = status;
            return Step::End;
        }
        if (status == ternkit::kAbsent) {
            return Step::GoOn;
        }
        ++m_cursor;
        return isTarget ? Step::End : Step::GoOn;
    }

    // What a message in front of the target leaves behind. It depends on the message's blocks alone, so rows that name one
    // message again and again cost one reading of it.
    struct Passed {
        std::optional<Status> status;        // none: it threw
        BodyKind bodyKind = BodyKind::None;  // none: it has no body
    };

    Status passMessage(const StoreRow& row) {
        const node_info info = m_db->lookup_node_info(row.row.get_row_id());
        const auto [known, isNew] = m_passed.try_emplace({info.data_bid, info.subnode_bid});
        Passed& passed = known->second;
        if (isNew) {
            try {
                passed.status =
                    ExtractStoreMessage(row, m_table.records[m_cursor], passed.bodyKind, MessageRole::InFront, m_filterData);
            } catch (const std::exception&) {
                // Told below, as for every other row that names the message.
            }
        }
        if (passed.bodyKind != BodyKind::None) {
            m_bodyKind = passed.bodyKind;
        }
        if (!passed.status) {
            throw pstsdk::database_corrupt("message that cannot be read");
        }
        return *passed.status;
    }

    std::map<std::pair<pstsdk::block_id, pstsdk::block_id>, Passed> m_passed;
    MessagePageTable& m_table;
    const shared_db_ptr& m_db;
    std::uint32_t m_targetPage;
    BodyKind& m_bodyKind;
    PstFilterData& m_filterData;
    std::int32_t m_cursor = 0;
    Status m_result = ternkit::kOk;
};

}  // namespace

Status CountStoreMessages(MessagePageTableOwner& table, const shared_db_ptr& db) {
    std::uint32_t total = 0;
    eachFolder(db, [&](const node_info& info) {
        const pstsdk::property_bag bag(pstsdk::node(db, info));
        if (bag.read_text(kDisplayName) != kFreeBusyFolder) {
            total += bag.read_4(kContentCount);
        }
        return Step::GoOn;
    });
    const std::int32_t count = static_cast<std::int32_t>(total);
    if (count < 1) {
        return ternkit::kBadArgument;
    }
    table.reset(MakeMessagePageTable(count));
    return table != nullptr ? ternkit::kOk : ternkit::kNoMemory;
}

Status WalkStoreToPage(MessagePageTable& table, const shared_db_ptr& db, std::uint32_t targetPage, BodyKind& bodyKind,
                       PstFilterData& filterData) {
    return StoreWalk(table, db, targetPage, bodyKind, filterData).run();
}
