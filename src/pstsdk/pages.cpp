#include "pstsdk/pages.h"

#include "pstsdk/database.h"
#include "pstsdk/disk.h"

namespace pstsdk {

namespace {

std::shared_ptr<bbt_page> read_tree_page(db_context& db, const page_info& info, const bbt_page* /*parent*/) {
    return db.read_bbt_page(info);
}

std::shared_ptr<nbt_page> read_tree_page(db_context& db, const page_info& info, const nbt_page* /*parent*/) {
    return db.read_nbt_page(info);
}

}  // namespace

template <typename K, typename V>
bt_page<K, V>* bt_nonleaf_page<K, V>::load_child(ulong pos) const {
    std::shared_ptr<bt_page<K, V>>& slot = m_child_pages.at(pos);
    if (!slot) {
        const std::shared_ptr<db_context> db(this->m_db);
        const tree_place place = this->m_place.child();
        std::shared_ptr<bt_page<K, V>> child = read_tree_page(*db, m_page_info[pos].second, this);
        place.take(disk::page_size);
        child->set_place(place);
        slot = std::move(child);
    }
    return slot.get();
}

template class bt_nonleaf_page<ulonglong, block_info>;
template class bt_nonleaf_page<ulong, node_info>;

}  // namespace pstsdk
