// The export that visits all messages of a file.

#include <ternkit/batch.h>

#include <algorithm>
#include <array>
#include <exception>
#include <new>
#include <string>
#include <string_view>
#include <vector>

#include <ternkit/formats.h>
#include "common/apiutils.h"
#include "fileformats/pst/common/entrysteps.h"
#include "fileformats/pst/common/maildate.h"
#include "fileformats/pst/common/mimedocument.h"
#include "fileformats/pst/common/msgdocument.h"
#include "fileformats/pst/common/msgreader.h"
#include "fileformats/pst/common/storevisit.h"
#include "fileformats/pst/common/storewalk.h"
#include "pstsdk/database.h"
#include "ternbase/ternbase.h"
#include "ternbase/windows.h"

using ternkit::BatchMessage;
using ternkit::BatchRequest;
using ternkit::BatchWish;
using ternkit::FileHandle;
using ternkit::Status;

namespace {

bool isUtf8(const std::string& text) {
    const bool isAscii = std::all_of(text.begin(), text.end(), [](char byte) { return static_cast<signed char>(byte) >= 0; });
    std::u16string wide(isAscii ? 0 : text.size(), u'\0');
    return isAscii || TbWideFromUtf8(text.data(), text.size(), wide.data(), wide.size()) != 0;
}

std::string utf8FromSystemPage(const std::string& text) {
    constexpr std::size_t kMostBytesPerUnit = 3;
    const int size = static_cast<int>(text.size());
    std::u16string wide(text.size(), u'\0');
    const int units = MultiByteToWideChar(GetACP(), 0, text.data(), size, wide.data(), size);
    std::string utf8(kMostBytesPerUnit * text.size(), '\0');
    utf8.resize(TbUtf8FromWide(wide.data(), static_cast<std::uint64_t>(units), utf8.data(), utf8.size()));
    return utf8;
}

// A header field as a visitor gets it: up to its first NUL, and never null. The 8-bit texts of old items and messages tell no
// charset; a document shows their bytes as they are, and a visitor gets UTF-8 of them.
class FieldText {
public:
    explicit FieldText(const OwnedBytes& field) {
        if (field.data != nullptr) {
            m_text.assign(field.data, BoundedLength(field.data, field.size));
        }
        if (!isUtf8(m_text)) {
            m_text = utf8FromSystemPage(m_text);
        }
    }

    const char* text() const { return m_text.c_str(); }

private:
    std::string m_text;
};

struct HeaderTexts {
    FieldText subject;
    FieldText senderName;
    FieldText senderAddress;
    FieldText displayTo;
    FieldText displayCc;
    FieldText displayBcc;
    FieldText date;
};

HeaderTexts headerTexts(const MessageRecord& message) {
    return {FieldText(message.subject),   FieldText(message.senderName), FieldText(message.senderAddress),
            FieldText(message.displayTo), FieldText(message.displayCc),  FieldText(message.displayBcc),
            FieldText(message.sentTime)};
}

HeaderTexts headerTexts(const MimeMessage& message) {
    const OwnedBytes none;
    return {FieldText(message.subject), FieldText(message.from), FieldText(none),        FieldText(message.to),
            FieldText(message.cc),      FieldText(message.bcc),  FieldText(message.date)};
}

// The temporary files of a record by their native paths; a path that has none is left out.
class NativePaths {
public:
    explicit NativePaths(const PstFilterData& record) {
        constexpr std::size_t kMostBytesPerUnit = 3;
        std::array<char, kMostBytesPerUnit * kPathUnits> native;
        for (std::uint64_t at = 0; at < record.tempFiles.size; ++at) {
            const char* path = record.tempFiles.data[at];
            const ScopedBlock wide = path != nullptr ? WideFromUtf8String(path) : ScopedBlock();
            if (wide && TbHostNativePath(wide.wide(), native.data(), native.size()) != 0) {
                m_paths.emplace_back(native.data());
            }
        }
        for (const std::string& path : m_paths) {
            m_pointers.push_back(path.c_str());
        }
    }

    const char* const* data() const { return m_pointers.data(); }
    std::uint64_t size() const { return m_pointers.size(); }

private:
    std::vector<std::string> m_paths;
    std::vector<const char*> m_pointers;
};

// The caller's two functions.
class Visitor {
public:
    explicit Visitor(const BatchRequest& request) : m_request(request) {}

    BatchWish wish(std::uint32_t index, std::uint32_t count) const {
        const BatchWish wish =
            m_request.wish != nullptr ? m_request.wish(m_request.userData, index, count) : BatchWish::kDocument;
        return wish == BatchWish::kPass || wish == BatchWish::kSummary ? wish : BatchWish::kDocument;
    }

    /// @return true to go on
    bool visit(BatchMessage& message, const HeaderTexts& header, const PstFilterData* record) const {
        message.structSize = sizeof(message);
        message.subject = header.subject.text();
        message.senderName = header.senderName.text();
        message.senderAddress = header.senderAddress.text();
        message.displayTo = header.displayTo.text();
        message.displayCc = header.displayCc.text();
        message.displayBcc = header.displayBcc.text();
        message.date = header.date.text();
        if (record == nullptr || message.status != ternkit::kOk || record->documentFormat == 0) {
            return call(message);
        }
        const NativePaths files(*record);
        message.documentFormat = record->documentFormat;
        message.document = record->document.data != nullptr ? record->document.data : "";
        message.documentSize = record->document.size;
        message.htmlPath = TravelsByFile(*record) ? record->htmlPath : nullptr;
        message.tempFiles = files.data();
        message.tempFileCount = files.size();
        return call(message);
    }

private:
    bool call(const BatchMessage& message) const { return m_request.visit(m_request.userData, &message) == ternkit::kOk; }

    const BatchRequest& m_request;
};

// A store.

class StorePages final : public StoreVisitor {
public:
    StorePages(const Visitor& visitor, std::uint32_t count) : m_visitor(visitor), m_count(count) {}

    BatchWish wish(std::uint32_t page) override { return m_visitor.wish(page, m_count); }

    bool visit(const VisitedPages& pages) override {
        BatchMessage message{};
        message.messageIndex = pages.first;
        message.run = pages.count;
        message.messageCount = m_count;
        message.sourceFormat = ternkit::kFormatPst;
        message.status = pages.status;
        message.resultStatus = ternkit::kOk;
        message.bodies = pages.facts.bodies;
        message.size = pages.facts.storedSize.value_or(pages.facts.bodyBytes);
        message.sentTime = pages.facts.sentTime;
        return m_visitor.visit(message, headerTexts(pages.message), pages.document);
    }

private:
    const Visitor& m_visitor;
    std::uint32_t m_count;
};

Status visitStore(const BatchRequest& request, const Visitor& visitor) {
    const pstsdk::shared_db_ptr db = pstsdk::open_database(request.fileName);
    std::int32_t count = 0;
    const Status status = CountStorePages(count, db);
    if (status != ternkit::kOk) {
        return status;
    }
    StorePages pages(visitor, static_cast<std::uint32_t>(count));
    VisitStorePages(db, count, request.plainTextOnly, pages);
    return ternkit::kOk;
}

// The other sources, which hold one message.

// The one message of a file, and what is shown of it.
struct OneMessage {
    OneMessage() : record(MakeFilterData()), guard(record) {
        if (record == nullptr) {
            throw std::bad_alloc();
        }
        ChooseRoute(*record);
    }

    PstFilterData* const record;
    const FilterDataGuard guard;
    BodyKind bodyKind = BodyKind::None;
    BatchMessage shown{};
};

void beginMessage(OneMessage& one, std::uint32_t sourceFormat, FileHandle file) {
    one.shown.run = 1;
    one.shown.messageCount = 1;
    one.shown.sourceFormat = sourceFormat;
    one.shown.resultStatus = ternkit::kOk;
    one.shown.sentTime = ternkit::kBatchNoTime;
    one.shown.size = static_cast<std::uint64_t>(std::max<std::int64_t>(TbFileSeek(file, 0, kTbSeekEnd), 0));
}

/// Runs a step of the source's branch, as the dispatch does: what arises in it is a status.
template <typename Action>
Status asStatus(const Action& action) {
    try {
        return action();
    } catch (const std::bad_alloc&) {
        return ternkit::kNoMemory;
    } catch (const std::exception&) {
        return ternkit::kUnusable;
    }
}

void visitItem(const BatchRequest& request, const Visitor& visitor, BatchWish wish, FileHandle file) {
    const bool wantsDocument = wish == BatchWish::kDocument;
    const bool plainTextOnly = request.plainTextOnly == 1;
    OneMessage one;
    beginMessage(one, ternkit::kFormatMsg, file);
    MessageRecord message;
    MessageFacts facts;
    one.shown.status = asStatus([&] {
        const Status status = ReadMsgFile(message, wantsDocument ? one.record : nullptr, request.fileName, &facts);
        if (status != ternkit::kOk) {
            return status;
        }
        if (!wantsDocument) {
            const bool fromText = plainTextOnly || message.body.data == nullptr;
            return fromText && message.plainBody.data == nullptr ? ternkit::kUnusable : ternkit::kOk;
        }
        const Status made = MakeMsgDocument(message, one.bodyKind, plainTextOnly, *one.record);
        return made == ternkit::kOk ? FinishDocument(*one.record, ternkit::kFormatMsg, one.bodyKind, plainTextOnly) : made;
    });
    if (one.shown.status == ternkit::kOk) {
        one.shown.resultStatus = one.record->attachmentStatus;
    }
    one.shown.bodies = facts.bodies;
    one.shown.sentTime = facts.sentTime;
    visitor.visit(one.shown, headerTexts(message), one.record);
}

std::uint32_t bodiesOf(const MimeMessage& message) {
    if (message.body.data == nullptr) {
        return 0;
    }
    return message.bodyFormat == BodyKind::Html ? ternkit::kBatchBodyHtml : ternkit::kBatchBodyText;
}

void visitInternetMessage(const BatchRequest& request, const Visitor& visitor, BatchWish wish, FileHandle file) {
    const bool wantsDocument = wish == BatchWish::kDocument;
    OneMessage one;
    beginMessage(one, ternkit::kFormatEml, file);
    MimeMessage message;
    message.pictures = wantsDocument ? Pictures::Embed : Pictures::Leave;
    one.shown.status = asStatus([&] {
        const Status status = ParseMimeMessage(message, file, *one.record);
        if (status < ternkit::kOk) {
            return status;
        }
        one.shown.bodies = bodiesOf(message);
        if (!wantsDocument) {
            return message.body.data != nullptr ? ternkit::kOk : ternkit::kUnusable;
        }
        const Status made = MakeMimeDocument(message, one.bodyKind, *one.record);
        return made == ternkit::kOk ? FinishDocument(*one.record, ternkit::kFormatEml, one.bodyKind, request.plainTextOnly == 1)
                                    : made;
    });
    const HeaderTexts header = headerTexts(message);
    one.shown.sentTime = ParseMailDate(header.date.text()).value_or(ternkit::kBatchNoTime);
    visitor.visit(one.shown, header, one.record);
}

Status visitFile(const BatchRequest& request) {
    FileGuard file(TbFileOpen(request.fileName, 0, kOpenForReading));
    if (file.handle() == ternkit::kInvalidHandle) {
        return ternkit::kCannotOpen;
    }
    std::uint32_t source = 0;
    const Status status = SniffSource(file.handle(), source);
    if (status != ternkit::kOk) {
        return status;
    }
    const Visitor visitor(request);
    if (source == static_cast<std::uint32_t>(SourceKind::Pst)) {
        file.close();
        return visitStore(request, visitor);
    }
    const BatchWish wish = visitor.wish(0, 1);
    if (wish == BatchWish::kPass) {
        return ternkit::kOk;
    }
    const auto visit = source == static_cast<std::uint32_t>(SourceKind::Msg) ? visitItem : visitInternetMessage;
    visit(request, visitor, wish, file.handle());
    return ternkit::kOk;
}

}  // namespace

extern "C" Status TernVisitMessages(const BatchRequest* request) {
    if (request == nullptr || request->structSize != sizeof(BatchRequest) || request->fileName == nullptr ||
        request->visit == nullptr) {
        return ternkit::kBadArgument;
    }
    // No exception leaves the library.
    try {
        return visitFile(*request);
    } catch (const std::bad_alloc&) {
        return ternkit::kNoMemory;
    } catch (...) {
        return ternkit::kUnusable;
    }
}
