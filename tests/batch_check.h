// Compares a visit of all messages of a file with what fltLoad gives for each message number.
#pragma once

#include <functional>
#include <map>
#include <optional>
#include <string>
#include <vector>

#include <ternkit/batch.h>
#include "filter_host.h"

namespace batch_check {

/// What a host gets of one message number, by either way.
struct Outcome {
    ternkit::Status status = 0;
    ternkit::Status resultStatus = 0;
    std::uint32_t format = 0;  // of the document
    std::string document;
    std::map<std::string, std::string> files;  // the temporary files but the document, by their last name

    bool operator==(const Outcome&) const = default;
};
std::ostream& operator<<(std::ostream& out, const Outcome& outcome);

/// A visit's message with its texts and files.
struct Visited {
    ternkit::BatchMessage message{};  // its pointers are no longer valid
    Outcome outcome;
    std::string subject, senderName, senderAddress, displayTo, displayCc, displayBcc, date;
    bool inFile = false;  // the document came as a file
};

struct Visit {
    ternkit::Status status = 0;
    std::vector<std::uint32_t> asked;  // in order
    std::vector<Visited> visits;
};

using Wish = std::function<ternkit::BatchWish(std::uint32_t)>;

/// Visits the messages of a host's file. @param goOn how many messages to take before the visit is ended
Visit VisitAll(FilterHost& host, const Wish& wish = nullptr, bool plainTextOnly = false, std::size_t goOn = SIZE_MAX);

/// Visits all messages of a file with several wishes, and compares every one with what fltLoad gives.
/// @return the summaries, one for each message
std::vector<Visited> CheckAgainstLoad(const std::string& file, Route route, bool plainTextOnly);
/// The same on both routes, with and without plainTextOnly.
std::vector<Visited> CheckAgainstLoad(const std::string& file);

}  // namespace batch_check
