// The filter, found and loaded at run time as a toolkit loads its filters, and guards around what a host passes to it.
#pragma once

#include <string>

#include <ternkit/filter.h>
#include <ternkit/ternbase.h>

#include "job.h"
#include "loaders.h"

namespace ternview {

/// The loaded filter. It stays loaded for as long as the process lives.
class FilterModule {
public:
    /// Looks beside the program (../lib), then where the build installs libraries; the environment variable TERNMAIL_LIBRARY
    /// names another file and then is the only one tried.
    /// @throws JobError with kFilterMissing and what was tried
    FilterModule();

    ternkit::Status info(ternkit::FilterInfoRequest& request) const { return module_.fltInfo(&request); }
    ternkit::Status load(ternkit::FilterLoadRequest& request) const { return module_.fltLoad(&request); }
    /// Frees a record that the filter left in a slot.
    void freeData(void* record) const { module_.fltFreeData(record, 0); }

private:
    ternkit::TernModule module_{};
};

/// The mail file of a job, open for reading.
class MailFile {
public:
    /// @param path native path in whatever bytes the file system uses
    /// @throws JobError when there is no regular file that can be read
    explicit MailFile(const std::string& path);
    ~MailFile();
    MailFile(const MailFile&) = delete;
    MailFile& operator=(const MailFile&) = delete;

    /// Name under which the filter can open the file. A path that is no UTF-8 has no UTF-16 form; the open descriptor then
    /// lends its own.
    const std::u16string& name() const { return name_; }
    ternkit::FileHandle handle() const { return handle_; }
    /// For reading at offsets.
    int descriptor() const { return descriptor_; }
    std::uint64_t size() const { return size_; }
    /// Up to `count` bytes from the file's start.
    std::string beginning(std::size_t count) const;

private:
    int descriptor_ = -1;
    ternkit::FileHandle handle_ = ternkit::kInvalidHandle;
    std::uint64_t size_ = 0;
    std::u16string name_;
};

/// A call of fltInfo with everything that its request points to. Fields are public: the request is the interface.
struct InfoCallRecords {
    InfoCallRecords(const MailFile& file, const Job& job);
    InfoCallRecords(const InfoCallRecords&) = delete;
    InfoCallRecords& operator=(const InfoCallRecords&) = delete;

    ternkit::HostFileInfo fileInfo{};
    ternkit::HostLoadOptions options{};
    ternkit::FilterInfoRequest request{};
};

/// The same for fltLoad.
struct LoadCallRecords {
    LoadCallRecords(const MailFile& file, const Job& job);
    LoadCallRecords(const LoadCallRecords&) = delete;
    LoadCallRecords& operator=(const LoadCallRecords&) = delete;

    ternkit::HostFileInfo fileInfo{};
    ternkit::HostLoadOptions options{};
    ternkit::FilterLoadRequest request{};
};

/// Selects the alternative loaders of a load request.
class AlternativeTarget final : public ternkit::TargetObject {
public:
    std::int32_t addReference() override { return 1; }
    std::int32_t releaseReference() override { return 1; }
    std::int32_t version() override { return 1; }
    std::int32_t kind() override { return ternkit::kTargetKindAlternative; }
};

}  // namespace ternview
