#include "pstsdk/properties.h"

namespace pstsdk {

namespace {

using prop_node = bth_node<prop_id, disk::prop_entry>;
using prop_nonleaf = bth_nonleaf_node<prop_id, disk::prop_entry>;

std::shared_ptr<prop_node> open_properties(const std::shared_ptr<heap_impl>& heap) {
    return heap->open_bth<prop_id, disk::prop_entry>(heap->get_root_id());
}

void collect_keys(const prop_node& node, std::vector<prop_id>& keys) {
    if (node.get_level() == 0) {
        for (ulong pos = 0; pos < node.num_values(); ++pos) {
            keys.push_back(node.get_key(pos));
        }
        return;
    }
    const auto& index = static_cast<const prop_nonleaf&>(node);
    for (ulong pos = 0; pos < index.num_values(); ++pos) {
        collect_keys(*index.get_child(pos), keys);
    }
}

}  // namespace

std::u16string const_property_object::read_text(prop_id id) const {
    const std::vector<byte> bytes = read_bytes(id);
    std::u16string text;
    if (prop_type(id) == prop_type_string8) {
        text.reserve(bytes.size());
        for (const byte b : bytes) {
            text.push_back(static_cast<char16_t>(static_cast<signed char>(b)));
        }
        return text;
    }
    const byte_view view(bytes);
    text.resize(bytes.size() / sizeof(char16_t));
    for (std::size_t i = 0; i < text.size(); ++i) {
        text[i] = view.read<char16_t>(i * sizeof(char16_t));
    }
    return text;
}

property_bag::property_bag(const node& n)
    : m_root(open_properties(std::make_shared<heap_impl>(n, disk::heap_client_properties))) {}

property_bag::property_bag(const property_bag& other)
    : const_property_object(other), m_root(open_properties(std::make_shared<heap_impl>(other.get_node()))) {}

std::vector<prop_id> property_bag::list_props() const {
    std::vector<prop_id> keys;
    collect_keys(*m_root, keys);
    return keys;
}

ushort property_bag::prop_type(prop_id id) const {
    return m_root->lookup(id).wPropType;
}

bool property_bag::has_prop(prop_id id) const {
    return m_root->find(id) != nullptr;
}

hnid_value property_bag::value(prop_id id) const {
    return {m_root->get_heap(), read_4(id)};
}

ulonglong property_bag::prop_size(prop_id id) const {
    return value(id).size();
}

hnid_stream_device property_bag::open_prop(prop_id id) const {
    return value(id).open();
}

byte property_bag::read_1(prop_id id) const {
    return static_cast<byte>(read_4(id));
}

ushort property_bag::read_2(prop_id id) const {
    return static_cast<ushort>(read_4(id));
}

ulong property_bag::read_4(prop_id id) const {
    return m_root->lookup(id).dwValueHnid;
}

ulonglong property_bag::read_8(prop_id id) const {
    return byte_view(read_bytes(id)).read<ulonglong>(0);
}

std::vector<byte> property_bag::read_bytes(prop_id id) const {
    return value(id).read();
}

}  // namespace pstsdk
