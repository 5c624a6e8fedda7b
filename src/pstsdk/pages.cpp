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
    taken_mark& taken = m_taken[pos];
    if (slot && taken.is_for_good()) {
        return slot.get();
    }
    std::shared_ptr<bt_page<K, V>> child = slot;
    if (!child) {
        const std::shared_ptr<db_context> db(this->m_db);
        const tree_place place = this->m_place.child();
        child = read_tree_page(*db, m_page_info[pos].second, this);
        child->set_place(place);
    }
    this->m_place.take_once(disk::page_size, taken);
    slot = std::move(child);
    return slot.get();
}

template <typename K, typename V>
void bt_nonleaf_page<K, V>::forget_pages(forget what) {
    for (std::size_t pos = 0; pos < m_child_pages.size(); ++pos) {
        std::shared_ptr<bt_page<K, V>>& slot = m_child_pages[pos];
        auto* nonleaf = dynamic_cast<bt_nonleaf_page*>(slot.get());
        if (!m_taken[pos].is_for_good() || (nonleaf == nullptr && what == forget::trials_and_leaves)) {
            slot.reset();
        } else if (nonleaf != nullptr) {
            nonleaf->forget_pages(what);
        }
    }
}

template class bt_nonleaf_page<ulonglong, block_info>;
template class bt_nonleaf_page<ulong, node_info>;

}  // namespace pstsdk
