/** What the tests of the store reader share: a store on the disk, its open database, and the naming of what was thrown. */
#pragma once

#include <functional>
#include <memory>
#include <string>

#include "pstsdk/database.h"
#include "store_builder.h"

namespace builder {

/** A path in the directory for temporary files; what lies there is removed at the end. */
class TemporaryFile {
public:
    TemporaryFile();
    TemporaryFile(const TemporaryFile&) = delete;
    TemporaryFile& operator=(const TemporaryFile&) = delete;
    ~TemporaryFile();

    const std::string& path() const { return m_path; }
    std::u16string widePath() const;

private:
    std::string m_path;
};

/** A store that was written and opened. */
class OpenStore {
public:
    explicit OpenStore(const StoreBuilder& store);
    explicit OpenStore(const StoreImage& image);

    pstsdk::db_context* operator->() const { return db.get(); }

    TemporaryFile file{};
    pstsdk::shared_db_ptr db{};
};

/** "nothing", or the class and the message of what the action throws: "unexpected_page: wrong page id". */
std::string thrownBy(const std::function<void()>& action);

/** All bytes of a node. */
Bytes bytesOf(const pstsdk::node& node);

}  // namespace builder
