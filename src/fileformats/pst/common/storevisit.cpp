#include "fileformats/pst/common/storevisit.h"

#include <algorithm>
#include <deque>
#include <exception>
#include <memory>
#include <new>
#include <optional>
#include <utility>

#include <ternkit/formats.h>
#include "fileformats/pst/common/entrysteps.h"
#include "fileformats/pst/common/storedocument.h"
#include "fileformats/pst/common/storemessage.h"
#include "fileformats/pst/common/storewalk.h"

using pstsdk::node_info;
using pstsdk::shared_db_ptr;
using ternkit::BatchWish;
using ternkit::Status;

namespace {

// A sound store has each message in one row, and nothing in it is read twice. One that is not may have as much read anew, in
// bytes, as so many times its file and 256 MiB.
constexpr std::uint64_t kWorkPerByte = 64;
constexpr std::uint64_t kWorkForAny = 256 << 20;
constexpr std::uint64_t kReadingCost = 4096;  // of a message that is small or already in memory
constexpr std::size_t kSummariesKept = 4;

// The page that is being read: what a walk to it alone would have in hands.
class Page {
public:
    Page(BatchWish pageWish, BodyKind kindInFront)
        : wish(pageWish),
          bodyKind(kindInFront),
          document(pageWish == BatchWish::kDocument ? MakeFilterData() : nullptr),
          m_guard(document) {
        if (wish == BatchWish::kSummary) {
            return;
        }
        if (document == nullptr) {
            throw std::bad_alloc();
        }
        ChooseRoute(*document);
    }

    /// Reads a message into the page. @throws what the store layers throw, with what was read until then left in the page
    Status read(const StoreMessage& source) {
        facts.bodies = 0;
        facts.bodyBytes = 0;
        facts.storedSize.reset();
        ownKind = BodyKind::None;
        const KindKeeper keeper(*this);
        return document != nullptr ? ExtractStoreMessage(source, message, ownKind, *document, &facts)
                                   : SummarizeStoreMessage(source, message, ownKind, facts);
    }

    /// Composes the document, or tells whether there would be one. @return the page's status
    Status finish(std::uint32_t plainText) {
        const bool insteadOfRich = plainText == ternkit::kBatchPlainTextInstead && message.body.data == nullptr;
        const bool plainTextOnly = plainText == ternkit::kBatchPlainTextAlways || insteadOfRich;
        if (document == nullptr) {
            const OwnedBytes& shown = plainTextOnly ? message.plainBody : message.body;
            return shown.data != nullptr ? ternkit::kOk : ternkit::kUnusable;
        }
        try {
            const Status status = MakeStoreDocument(message, bodyKind, plainTextOnly, *document);
            return status == ternkit::kOk ? FinishDocument(*document, ternkit::kFormatPst, bodyKind, plainTextOnly) : status;
        } catch (const std::bad_alloc&) {
            return ternkit::kNoMemory;
        } catch (const std::exception&) {
            return ternkit::kUnusable;
        }
    }

    const BatchWish wish;
    MessageRecord message;
    MessageFacts facts;
    BodyKind bodyKind;                  // carried over from the messages in front, and from one reading to the next
    BodyKind ownKind = BodyKind::None;  // set by the last message that was read
    PstFilterData* const document;      // null for a summary

private:
    // Carries the kind over whatever way a reading ends.
    struct KindKeeper {
        explicit KindKeeper(Page& owner) : page(owner) {}
        KindKeeper(const KindKeeper&) = delete;
        KindKeeper& operator=(const KindKeeper&) = delete;
        ~KindKeeper() {
            if (page.ownKind != BodyKind::None) {
                page.bodyKind = page.ownKind;
            }
        }
        Page& page;
    };

    const FilterDataGuard m_guard;
};

// A reading for a page, which takes from the store only what a message in front of the page takes.
class Trial {
public:
    Trial(pstsdk::store_budget& budget, pstsdk::store_budget::taking mode) : m_budget(budget) { budget.begin_trial(mode); }
    Trial(const Trial&) = delete;
    Trial& operator=(const Trial&) = delete;
    ~Trial() {
        if (!m_kept) {
            m_budget.take_back_holes();
        }
        m_budget.end_trial();
    }

    /// The reading stands for one in front of the page.
    void keep() { m_kept = true; }

private:
    pstsdk::store_budget& m_budget;
    bool m_kept = false;
};

// The last summaries, for rows that name one message again and again.
class SummaryCache {
public:
    struct Summary {
        node_info message;
        std::shared_ptr<Page> page;
        Status status;
    };

    const Summary* find(const node_info& message) const {
        const auto known = std::find_if(m_summaries.begin(), m_summaries.end(), [&](const Summary& summary) {
            return summary.message.data_bid == message.data_bid && summary.message.subnode_bid == message.subnode_bid;
        });
        return known != m_summaries.end() ? &*known : nullptr;
    }

    void keep(Summary summary) {
        if (m_summaries.size() == kSummariesKept) {
            m_summaries.pop_front();
        }
        m_summaries.push_back(std::move(summary));
    }

private:
    std::deque<Summary> m_summaries;
};

// The walk. Its state is that of a walk to a page far behind, to which every message is one in front. A page that is wanted is
// read as its own walk would read it from there on, and leaves nothing behind but what the message in front of others does.
class StoreVisit {
public:
    StoreVisit(const shared_db_ptr& db, std::int32_t count, std::uint32_t plainText, StoreVisitor& visitor)
        : m_db(db),
          m_rows(db),
          m_passed(db),
          m_count(static_cast<std::uint32_t>(count)),
          m_plainText(plainText),
          m_visitor(visitor),
          m_workLeft(kWorkPerByte * db->length() + kWorkForAny) {}

    void run() {
        while (m_page < m_count && !m_ended) {
            const auto row = m_restStatus ? std::nullopt : m_rows.next();
            if (!row) {
                visitRest();
                return;
            }
            visitRow(*row);
        }
    }

private:
    void visitRow(const pstsdk::const_table_row& row) {
        const auto message = messageOf(row);
        if (!message) {
            m_rows.leaveFolder();
            return;
        }
        if (!m_pageVisited && wish() != BatchWish::kPass && !m_passed.knowsPageless(*message)) {
            showMessage(*message);
        }
        if (!m_ended) {
            passMessage(*message);
        }
    }

    std::optional<node_info> messageOf(const pstsdk::const_table_row& row) const {
        try {
            return m_db->lookup_node_info(row.get_row_id());
        } catch (const std::exception&) {
            return std::nullopt;
        }
    }

    void passMessage(const node_info& message) {
        Status status = ternkit::kAbsent;
        try {
            status = m_passed.pass(message, m_bodyKind);
        } catch (const std::exception&) {
            // The rest of the folder is given up; the next message takes the page number where the walk stands.
            m_rows.leaveFolder();
        }
        if (status != ternkit::kAbsent) {
            nextPage();
        }
        if (status < ternkit::kOk) {
            m_restStatus = status;
        }
    }

    void nextPage() {
        ++m_page;
        m_wish.reset();
        m_pageVisited = false;
    }

    BatchWish wish() {
        if (!m_wish) {
            m_wish = m_visitor.wish(m_page);
        }
        return *m_wish;
    }

    /// Reads a message for the page where the walk stands, and shows the page unless the message takes none.
    void showMessage(const node_info& message) {
        if (const auto* summary = *m_wish == BatchWish::kSummary ? m_summaries.find(message) : nullptr) {
            visitPage(*summary->page, summary->status);
            return;
        }
        const bool isKnown = m_passed.knows(message);
        if (isKnown && m_workLeft == 0) {
            visitPage(Page(*m_wish, m_bodyKind), ternkit::kNoMemory);
            return;
        }
        const auto page = std::make_shared<Page>(*m_wish, m_bodyKind);
        const std::uint64_t readBefore = m_db->bytes_read();
        Trial trial(m_db->budget(), isKnown ? pstsdk::store_budget::taking::tentative : pstsdk::store_budget::taking::for_good);
        const auto status = readPage(page, message, trial);
        if (isKnown) {
            const std::uint64_t made = page->document != nullptr ? page->document->document.size : 0;
            spend(kReadingCost + std::max(m_db->bytes_read() - readBefore, made));
        }
        if (status) {
            visitPage(*page, *status);
        }
    }

    /// Reads and finishes a page, whichever message it comes from. @return its status; none for a message that takes no page
    std::optional<Status> readPage(const std::shared_ptr<Page>& page, const node_info& message, Trial& trial) {
        Status status = ternkit::kOk;
        bool isOfMessage = true;
        try {
            status = page->read({m_db, message});
            // What ends well for the page does so in front of it, where less is read.
            if (status >= ternkit::kOk || page->wish == BatchWish::kSummary) {
                trial.keep();
                m_passed.note(message, status, page->ownKind);
            }
        } catch (const std::exception&) {
            isOfMessage = false;
            status = goOnBehind(*page);
        }
        if (status == ternkit::kAbsent) {
            return std::nullopt;
        }
        if (status == ternkit::kOk) {
            status = page->finish(m_plainText);
        }
        if (isOfMessage && page->wish == BatchWish::kSummary) {
            m_summaries.keep({message, page, status});
        }
        return status;
    }

    /// A message that cannot be read for its page ends its folder there, and the next one takes the page in its place.
    Status goOnBehind(Page& page) {
        const pstsdk::tentative_reading tentative(m_db->budget());
        StoreRows rows = m_rows;
        rows.leaveFolder();
        std::uint64_t paid = rows.cost() + m_db->bytes_read();
        while (m_workLeft != 0) {
            const auto row = rows.next();
            const auto status = row ? readRow(page, rows, *row) : ternkit::kOk;
            const std::uint64_t cost = rows.cost() + m_db->bytes_read();
            spend(cost - paid);
            paid = cost;
            if (status) {
                return *status;
            }
        }
        return ternkit::kNoMemory;
    }

    /// @return the status of a message that takes the page; none for a row without one
    std::optional<Status> readRow(Page& page, StoreRows& rows, const pstsdk::const_table_row& row) {
        try {
            const node_info message = m_db->lookup_node_info(row.get_row_id());
            const Status status = m_passed.knowsPageless(message) ? ternkit::kAbsent : page.read({m_db, message});
            return status != ternkit::kAbsent ? std::optional(status) : std::nullopt;
        } catch (const std::exception&) {
            rows.leaveFolder();
            return std::nullopt;
        }
    }

    void spend(std::uint64_t work) { m_workLeft -= std::min(work, m_workLeft); }

    /// The pages that no walk reaches: all come to the same end.
    void visitRest() {
        const MessageRecord nothing;
        const MessageFacts unknown;
        if (m_pageVisited) {
            nextPage();
        }
        while (m_page < m_count && !m_ended) {
            const std::uint32_t first = m_page;
            while (m_page < m_count && wish() != BatchWish::kPass) {
                nextPage();
            }
            if (m_page != first) {
                visit({first, m_page - first, m_restStatus.value_or(ternkit::kUnusable), nothing, unknown, nullptr});
            } else {
                nextPage();
            }
        }
    }

    void visitPage(const Page& page, Status status) {
        m_pageVisited = true;
        visit({m_page, 1, status, page.message, page.facts, page.document});
    }

    void visit(const VisitedPages& pages) { m_ended = !m_visitor.visit(pages); }

    const shared_db_ptr& m_db;
    StoreRows m_rows;
    PassedMessages m_passed;
    SummaryCache m_summaries;
    std::uint32_t m_count;
    std::uint32_t m_plainText;  // ternkit::BatchPlainText
    StoreVisitor& m_visitor;
    std::uint64_t m_workLeft;  // for what is read anew, in bytes
    BodyKind m_bodyKind = BodyKind::None;
    std::uint32_t m_page = 0;            // where the walk stands
    std::optional<BatchWish> m_wish;     // for that page, once asked
    bool m_pageVisited = false;          // that page has been shown although the walk has not passed it
    std::optional<Status> m_restStatus;  // of a message that ends the walk
    bool m_ended = false;                // by the visitor
};

}  // namespace

void VisitStorePages(const shared_db_ptr& db, std::int32_t count, std::uint32_t plainText, StoreVisitor& visitor) {
    StoreVisit(db, count, plainText, visitor).run();
}
