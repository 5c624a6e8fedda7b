// Property bags: the property context of a node ([MS-PST] 2.3.3), and the interface that they share with table rows. Values are
// bytes here; only read_text looks at a type.
#pragma once

#include <memory>
#include <string>
#include <vector>

#include "pstsdk/bth.h"
#include "pstsdk/streams.h"
#include "pstsdk/types.h"

namespace pstsdk {

using prop_id = ushort;

inline constexpr ushort prop_type_string8 = 0x001E;

/// Properties by id. Everything but list_props and has_prop throws key_not_found<ushort> for one that is not there.
class const_property_object {
public:
    virtual ~const_property_object() = default;

    virtual std::vector<prop_id> list_props() const = 0;
    virtual ushort prop_type(prop_id id) const = 0;
    virtual bool has_prop(prop_id id) const = 0;
    /// Bytes of a value that an HNID refers to.
    virtual ulonglong prop_size(prop_id id) const = 0;
    virtual hnid_stream_device open_prop(prop_id id) const = 0;
    // Values of up to 4 bytes stand in the entry itself; the caller knows the type.
    virtual byte read_1(prop_id id) const = 0;
    virtual ushort read_2(prop_id id) const = 0;
    virtual ulong read_4(prop_id id) const = 0;
    virtual ulonglong read_8(prop_id id) const = 0;
    virtual std::vector<byte> read_bytes(prop_id id) const = 0;

    /// A text, with its NULs. 8-bit text is widened by sign extension, without a code page; any other value counts as
    /// little-endian UTF-16.
    std::u16string read_text(prop_id id) const;

protected:
    const_property_object() = default;
    const_property_object(const const_property_object&) = default;
    const_property_object& operator=(const const_property_object&) = default;
};

class property_bag : public const_property_object {
public:
    /// @throws sig_mismatch for a node with another kind of heap, and what the opening of heap and BTH throws
    explicit property_bag(const node& n);
    /// A new bag, with a heap of its own, on the node of another one.
    property_bag(const property_bag& other);
    property_bag& operator=(const property_bag&) = delete;

    const node& get_node() const { return m_root->get_heap()->get_node(); }

    std::vector<prop_id> list_props() const override;
    ushort prop_type(prop_id id) const override;
    bool has_prop(prop_id id) const override;
    ulonglong prop_size(prop_id id) const override;
    hnid_stream_device open_prop(prop_id id) const override;
    byte read_1(prop_id id) const override;
    ushort read_2(prop_id id) const override;
    ulong read_4(prop_id id) const override;
    /// The first 8 bytes of the value. @throws database_corrupt for a shorter one
    ulonglong read_8(prop_id id) const override;
    std::vector<byte> read_bytes(prop_id id) const override;

private:
    hnid_value value(prop_id id) const;

    std::shared_ptr<bth_node<prop_id, disk::prop_entry>> m_root;
};

}  // namespace pstsdk
