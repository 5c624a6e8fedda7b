// From a page number to a message of a store. The store is not walked as a tree: every normal folder of the node B-tree is
// visited in node id order, and page n is reached by stepping through the n messages in front of it.
#pragma once

#include <cstdint>

#include "common/filterdata.h"
#include "fileformats/pst/common/messagerecord.h"
#include "pstsdk/database.h"

/**
 * Fixes how many pages a store has: the sum of what its folders declare, "Freebusy Data" left out.
 *
 * @param table receives the pages, each with an empty record; null on failure
 * @return 1; -13 for a store without messages; -1 without memory
 * @throws what the store layers throw for a folder without a name or count, and for damage met on the way
 */
ternkit::Status CountStoreMessages(MessagePageTableOwner& table, const pstsdk::shared_db_ptr& db);

/**
 * Steps through the messages up to the wanted one and fills its record. What is damaged ends its folder, and the page numbers of
 * what follows shift.
 *
 * @param targetPage page number, below the table's count
 * @param bodyKind set by the messages on the way
 * @return 1 when the walk ended in an orderly way, which does not say that it got there; below 1 a message's failure
 */
ternkit::Status WalkStoreToPage(MessagePageTable& table, const pstsdk::shared_db_ptr& db, std::uint32_t targetPage,
                                BodyKind& bodyKind, PstFilterData& filterData);
