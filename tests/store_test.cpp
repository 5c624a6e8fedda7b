#include "store_test.h"

#include <gtest/gtest.h>

#include <filesystem>
#include <random>

namespace builder {

using namespace pstsdk;

TemporaryFile::TemporaryFile() {
    std::random_device random;
    m_path = testing::TempDir() + "ternmail-test-" + std::to_string(random()) + "-" + std::to_string(random()) + ".pst";
}

TemporaryFile::~TemporaryFile() {
    std::error_code ignored;
    std::filesystem::remove(m_path, ignored);
}

std::u16string TemporaryFile::widePath() const {
    return std::filesystem::path(m_path).u16string();
}

OpenStore::OpenStore(const StoreBuilder& store) {
    store.write(file.path());
    db = open_database(file.widePath());
}

OpenStore::OpenStore(const StoreImage& image) {
    image.write(file.path());
    db = open_database(file.widePath());
}

std::string thrownBy(const std::function<void()>& action) {
    const auto named = [](const char* name, const std::exception& error) { return std::string(name) + ": " + error.what(); };
    try {
        action();
        return "nothing";
    } catch (const invalid_format& error) {
        return named("invalid_format", error);
    } catch (const unexpected_page& error) {
        return named("unexpected_page", error);
    } catch (const unexpected_block& error) {
        return named("unexpected_block", error);
    } catch (const crc_fail& error) {
        return named("crc_fail", error);
    } catch (const sig_mismatch& error) {
        return named("sig_mismatch", error);
    } catch (const database_corrupt& error) {
        return named("database_corrupt", error);
    } catch (const key_not_found<pstsdk::ulong>&) {
        return "key_not_found<ulong>";
    } catch (const key_not_found<ulonglong>&) {
        return "key_not_found<ulonglong>";
    } catch (const key_not_found<pstsdk::ushort>&) {
        return "key_not_found<ushort>";
    } catch (const not_implemented& error) {
        return named("not_implemented", error);
    } catch (const std::out_of_range& error) {
        return named("out_of_range", error);
    } catch (const std::length_error& error) {
        return named("length_error", error);
    } catch (const std::logic_error& error) {
        return named("logic_error", error);
    } catch (const std::runtime_error& error) {
        return named("runtime_error", error);
    } catch (const std::exception& error) {
        return named("exception", error);
    }
}

Bytes bytesOf(const node& node) {
    return node.ensure_data_block()->read_all();
}

}  // namespace builder
