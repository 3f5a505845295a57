#pragma once
// cfgctl --json: what a command did, as one JSON object on standard output, for programs (the
// web front end, the PHP library) that must not depend on the wording of the messages on
// standard error. The object's keys and status words are an interface: add, never rename.

#include <cstddef>
#include <cstdio>
#include <optional>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "cfgctl_args.h"
#include "model/param_names.h"
#include "trial_file.h"

namespace cfgctl {

// A value the daemon refused: the request, the parameter and the daemon's text.
struct Refusal {
    std::optional<Param> param;  // none for a refused end of session
    std::string written;         // the parameter as the user wrote it: name, "F1 F2 F3", ...
    std::optional<std::string> value;
    std::string text;
    unsigned line = 0;  // the apply file's line, from 1; 0 elsewhere
};

// A value that get or dump read, or the daemon's text for a read it refused.
struct ReadValue {
    Param param;
    std::optional<std::string> value;  // none for a refused read
    std::string refusal;
};

// What a command found and did, filled as it goes.
struct Report {
    bool hasTrial = false;  // the trial that is pending, or that the command ended
    long long secondsLeft = 0;
    long long deadline = 0;
    std::vector<TrialEntry> entries;
    std::optional<Refusal> refusal;                           // the first one
    std::vector<std::pair<const char*, std::size_t>> counts;  // in the order given
    bool hasValues = false;                                   // get and dump
    std::vector<ReadValue> values;
    const char* unreachable = nullptr;  // status 3's reason: "not_running" or "busy"

    void setTrial(const TrialRecord& trial, long long left);
    void refuse(Refusal refusal);
};

// Where a command prints what it did for people: standard output, or standard error under
// --json, which keeps standard output for the object alone.
std::FILE* humanOutput(const Invocation& invocation);

// `text` as a JSON string, quotes included. Bytes that are not UTF-8 become \u00XX (their
// Latin-1 reading), so that the result is always valid JSON.
std::string jsonString(std::string_view text);

// The word of an exit status, as the "status" key carries it.
const char* statusWord(int exitStatus);

// The whole object for a command that ends with `exitStatus`.
std::string reportJson(int exitStatus, const Report& report);

// The object for a command line refused because of a parameter name.
std::string nameErrorJson(const NameProblem& problem);

}  // namespace cfgctl
