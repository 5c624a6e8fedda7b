// All messages of a store in one walk. Every page is what a walk to it alone would find.
#pragma once

#include <cstdint>

#include <ternkit/batch.h>
#include "common/filterdata.h"
#include "fileformats/pst/common/messagerecord.h"
#include "pstsdk/database.h"

// What the walk has to show of a page, or of a run of pages that all have nothing to show. It is valid during the call.
struct VisitedPages {
    std::uint32_t first;
    std::uint32_t count;
    ternkit::Status status;
    const MessageRecord& message;
    const MessageFacts& facts;
    const PstFilterData* document;  // with its temporary files; null unless one was wanted, and empty unless the status is 1
};

class StoreVisitor {
public:
    StoreVisitor() = default;
    StoreVisitor(const StoreVisitor&) = delete;
    StoreVisitor& operator=(const StoreVisitor&) = delete;
    virtual ~StoreVisitor() = default;

    /// Asked once for each page, in order.
    virtual ternkit::BatchWish wish(std::uint32_t page) = 0;
    /// @return false to end the walk
    virtual bool visit(const VisitedPages& pages) = 0;
};

/**
 * Visits the pages of a store in order.
 *
 * @param count pages of the store, as CountStorePages gives it
 * @param plainText ternkit::BatchPlainText
 */
void VisitStorePages(const pstsdk::shared_db_ptr& db, std::int32_t count, std::uint32_t plainText, StoreVisitor& visitor);
