// The files of one exported message, from a worker's frames to their names in the export.
#pragma once

#include <cstdint>
#include <filesystem>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

#include "export_journal.h"
#include "output_files.h"
#include "worker_process.h"

namespace ternview {

/// Nothing of it is seen until `commit`, and nothing is left of it without.
class MessageOutputs final : public OutputReceiver {
public:
    /// @param file of the message; @throws JobError when its directory cannot be made
    MessageOutputs(const ExportJournal& journal, std::size_t file);

    void begin(FrameKind kind, std::string_view label) override;
    void data(std::string_view bytes) override;
    void end() override;

    /// Whether all outputs have arrived. What goes wrong afterwards costs the small picture only.
    bool isComplete() const { return !parts_.empty() && closedParts_ == expectedParts_; }

    /**
     * Enters the message into the journal and lets its outputs appear. Files that are not the export's stay as they are: the
     * outputs then take another name.
     *
     * @param record all but the names of the outputs
     * @return false when no name is short enough for the place; nothing has appeared then
     * @throws JobError
     */
    bool commit(ExportJournal& journal, MessageRecord record);

private:
    void beginPart(FrameKind kind, std::string_view label);
    enum class Name { kFree, kTaken, kTooLong };

    bool chooseStem(const ExportJournal& journal, MessageRecord& record, const MessageRecord* earlier, std::string stem) const;
    bool chooseNames(const ExportJournal& journal, MessageRecord& record, const MessageRecord* earlier) const;
    Name lookUp(const ExportJournal& journal, const MessageRecord& record, const MessageRecord* earlier) const;

    std::size_t file_;
    ExportFormat format_;
    std::filesystem::path directory_;
    std::filesystem::path thumbnails_;
    std::vector<std::unique_ptr<PendingFile>> parts_;
    std::size_t expectedParts_ = 0;
    std::size_t closedParts_ = 0;
    std::unique_ptr<PendingFile> thumbnail_;
    std::size_t thumbnailSize_ = 0;
    bool hasThumbnail_ = false;
    PendingFile* open_ = nullptr;
};

}  // namespace ternview
