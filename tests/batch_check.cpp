#include "batch_check.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <filesystem>
#include <ostream>

using namespace ternkit;

namespace batch_check {

namespace {

struct Visiting {
    Visit& visit;
    const Wish& wish;
    std::size_t goOn;
};

BatchWish AskWish(void* userData, std::uint32_t index, std::uint32_t /*count*/) {
    auto& visiting = *static_cast<Visiting*>(userData);
    visiting.visit.asked.push_back(index);
    return visiting.wish ? visiting.wish(index) : BatchWish::kDocument;
}

Outcome OutcomeOf(const BatchMessage& message) {
    Outcome outcome{message.status, message.resultStatus, message.documentFormat, {}, {}};
    EXPECT_EQ(message.document == nullptr, message.documentFormat == 0);
    if (message.document != nullptr) {
        outcome.document.assign(message.document, message.documentSize);
    }
    if (message.htmlPath != nullptr) {
        char native[4096];
        EXPECT_NE(TbHostNativePath(message.htmlPath, native, sizeof(native)), 0U);
        EXPECT_EQ(ReadWholeFile(native), outcome.document);
    }
    for (std::uint64_t at = 0; at < message.tempFileCount; ++at) {
        const std::filesystem::path path = message.tempFiles[at];
        EXPECT_TRUE(std::filesystem::is_regular_file(path)) << path;
        outcome.files[path.filename()] = ReadWholeFile(path);
    }
    return outcome;
}

std::int32_t TakeVisit(void* userData, const BatchMessage* message) {
    auto& visiting = *static_cast<Visiting*>(userData);
    EXPECT_EQ(message->structSize, sizeof(BatchMessage));
    visiting.visit.visits.push_back({*message, OutcomeOf(*message), message->subject, message->senderName, message->senderAddress,
                                     message->displayTo, message->displayCc, message->displayBcc, message->date,
                                     message->htmlPath != nullptr});
    return visiting.visit.visits.size() < visiting.goOn ? 1 : 0;
}

std::vector<Outcome> LoadAll(FilterHost& host, std::uint32_t count) {
    std::vector<Outcome> outcomes;
    for (std::uint32_t index = 0; index < count; ++index) {
        host.loadRequest.messageNumber = static_cast<std::int32_t>(index + 1);
        host.loadRequest.resultStatus = kOk;
        Outcome outcome;
        outcome.status = host.load();
        outcome.resultStatus = host.loadRequest.resultStatus;
        if (!host.delivery.loader.empty()) {
            outcome.format = host.delivery.info.format;
            outcome.document = host.delivery.document;
            outcome.files = host.delivery.files;
        }
        outcomes.push_back(std::move(outcome));
    }
    return outcomes;
}

/// The visits one for each message. Those of a run must have nothing to show.
std::vector<Visited> Expanded(const std::vector<Visited>& visits) {
    std::vector<Visited> all;
    for (const Visited& visited : visits) {
        const BatchMessage& message = visited.message;
        if (message.run != 1) {
            EXPECT_LT(message.status, kOk);
            EXPECT_EQ(visited.subject + visited.senderName + visited.date, "");
        }
        for (std::uint32_t at = 0; at < message.run; ++at) {
            all.push_back(visited);
            all.back().message.messageIndex += at;
            all.back().message.run = 1;
        }
    }
    return all;
}

/// Compares the visits of the messages that `wish` wants with what was loaded.
void Compare(const Visit& visit, const std::vector<Outcome>& loaded, const Wish& wish) {
    EXPECT_EQ(visit.status, kOk);
    std::vector<std::uint32_t> everyOne(loaded.size());
    for (std::uint32_t index = 0; index < loaded.size(); ++index) {
        everyOne[index] = index;
    }
    EXPECT_EQ(visit.asked, everyOne);
    const std::vector<Visited> all = Expanded(visit.visits);
    auto next = all.begin();
    for (std::uint32_t index = 0; index < loaded.size(); ++index) {
        SCOPED_TRACE("message " + std::to_string(index + 1));
        const BatchWish wanted = wish ? wish(index) : BatchWish::kDocument;
        if (wanted == BatchWish::kPass) {
            continue;
        }
        ASSERT_NE(next, all.end());
        ASSERT_EQ(next->message.messageIndex, index);
        EXPECT_EQ(next->message.messageCount, loaded.size());
        if (wanted == BatchWish::kDocument) {
            EXPECT_EQ(next->outcome, loaded[index]);
        } else {
            EXPECT_EQ(next->outcome.format, 0U);
            EXPECT_EQ(next->outcome.files.size(), 0U);
        }
        ++next;
    }
    EXPECT_EQ(next, all.end());
}

/// A summary tells what the document's visit tells. Its status is the document's unless that comes of what only a document needs.
void CompareSummaries(const std::vector<Visited>& summaries, const std::vector<Visited>& documents) {
    ASSERT_EQ(summaries.size(), documents.size());
    for (std::size_t at = 0; at < summaries.size(); ++at) {
        SCOPED_TRACE("summary " + std::to_string(at + 1));
        const Visited& summary = summaries[at];
        const Visited& document = documents[at];
        EXPECT_TRUE(summary.message.status == kOk || document.message.status < kOk)
            << summary.message.status << " for " << document.message.status;
        if (summary.message.status != document.message.status) {
            continue;
        }
        EXPECT_EQ(summary.subject, document.subject);
        EXPECT_EQ(summary.senderName, document.senderName);
        EXPECT_EQ(summary.senderAddress, document.senderAddress);
        EXPECT_EQ(summary.displayTo, document.displayTo);
        EXPECT_EQ(summary.displayCc, document.displayCc);
        EXPECT_EQ(summary.displayBcc, document.displayBcc);
        EXPECT_EQ(summary.date, document.date);
        EXPECT_EQ(summary.message.bodies, document.message.bodies);
        EXPECT_EQ(summary.message.size, document.message.size);
        EXPECT_EQ(summary.message.sentTime, document.message.sentTime);
        EXPECT_EQ(summary.message.sourceFormat, document.message.sourceFormat);
    }
}

}  // namespace

std::ostream& operator<<(std::ostream& out, const Outcome& outcome) {
    out << "status " << outcome.status << ", result " << outcome.resultStatus << ", format " << outcome.format << ", "
        << outcome.document.size() << " bytes: " << outcome.document.substr(0, 2000);
    for (const auto& [name, bytes] : outcome.files) {
        out << "\n  " << name << ", " << bytes.size() << " bytes";
    }
    return out;
}

Visit VisitAll(FilterHost& host, const Wish& wish, bool plainTextOnly, std::size_t goOn) {
    Visit visit;
    Visiting visiting{visit, wish, goOn};
    const std::u16string name = Wide(host.root.inputPath());
    const BatchRequest request{sizeof(BatchRequest), name.c_str(), plainTextOnly ? 1U : 0U, &visiting, AskWish, TakeVisit};
    visit.status = TernVisitMessages(&request);
    EXPECT_EQ(host.root.leftovers(), std::vector<std::string>());
    return visit;
}

std::vector<Visited> CheckAgainstLoad(const std::string& file, Route route, bool plainTextOnly) {
    FilterHost host(file, route);
    host.loadRequest.plainTextOnly = plainTextOnly ? 1 : 0;
    const Visit documents = VisitAll(host, nullptr, plainTextOnly);
    if (documents.status != kOk) {
        // A file that cannot be visited gives the same status for every number.
        EXPECT_TRUE(documents.visits.empty());
        EXPECT_EQ(host.load(), documents.status);
        return {};
    }
    if (documents.visits.empty()) {
        ADD_FAILURE() << "nothing visited";
        return {};
    }
    const std::vector<Outcome> loaded = LoadAll(host, documents.visits.front().message.messageCount);
    Compare(documents, loaded, nullptr);
    const auto summary = [](std::uint32_t) { return BatchWish::kSummary; };
    const Visit summaries = VisitAll(host, summary, plainTextOnly);
    Compare(summaries, loaded, summary);
    const std::vector<Visited> expanded = Expanded(summaries.visits);
    CompareSummaries(expanded, Expanded(documents.visits));
    for (const std::uint32_t turn : {0U, 1U, 2U}) {
        SCOPED_TRACE("wishes in turn from " + std::to_string(turn));
        const Wish inTurn = [turn](std::uint32_t index) { return static_cast<BatchWish>((index + turn) % 3); };
        Compare(VisitAll(host, inTurn, plainTextOnly), loaded, inTurn);
    }
    return expanded;
}

std::vector<Visited> CheckAgainstLoad(const std::string& file) {
    std::vector<Visited> summaries;
    for (const Route route : kBothRoutes) {
        for (const bool plainTextOnly : {true, false}) {
            SCOPED_TRACE(std::string(route == Route::Memory ? "in memory" : "in files") + (plainTextOnly ? ", plain text" : ""));
            summaries = CheckAgainstLoad(file, route, plainTextOnly);
        }
    }
    return summaries;
}

}  // namespace batch_check
