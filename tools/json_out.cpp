#include "json_out.h"

#include <cstdio>
#include <iterator>

namespace cfgctl {

namespace {

constexpr std::pair<int, const char*> kStatusWords[] = {
    {kExitOk, "ok"},
    {kExitRefused, "refused"},
    {kExitUsage, "usage"},
    {kExitNoDaemon, "not_reachable"},
    {kExitNoAnswer, "no_answer"},
    {kExitTrialPending, "trial_pending"},
    {kExitNoTrial, "no_trial"},
};

// The length of the UTF-8 sequence at the start of `text`, or 0 when it is not one (overlong
// forms, surrogates and values above U+10FFFF included).
std::size_t utf8Length(std::string_view text) {
    const auto byte = [&](std::size_t i) { return static_cast<unsigned char>(text[i]); };
    const unsigned char lead = byte(0);
    std::size_t length = 0;
    unsigned low = 0x80, high = 0xBF;  // the range of the second byte
    if (lead >= 0xC2 && lead <= 0xDF) {
        length = 2;
    } else if (lead >= 0xE0 && lead <= 0xEF) {
        length = 3;
        if (lead == 0xE0) low = 0xA0;
        if (lead == 0xED) high = 0x9F;
    } else if (lead >= 0xF0 && lead <= 0xF4) {
        length = 4;
        if (lead == 0xF0) low = 0x90;
        if (lead == 0xF4) high = 0x8F;
    } else {
        return 0;
    }
    if (text.size() < length || byte(1) < low || byte(1) > high) return 0;
    for (std::size_t i = 2; i < length; ++i)
        if (byte(i) < 0x80 || byte(i) > 0xBF) return 0;
    return length;
}

std::string optionalString(const std::optional<std::string>& value) {
    return value ? jsonString(*value) : "null";
}

std::string paramJson(const Param& param) {
    char text[64];
    std::snprintf(text, sizeof text, "\"address\":[%u,%u,%u]", param.f1, param.f2, param.f3);
    return std::string("{\"name\":") +
           (param.name[0] != '\0' ? jsonString(param.name) : std::string("null")) + "," + text;
}

std::string trialJson(const Report& report) {
    std::string json = "{\"seconds_left\":" + std::to_string(report.secondsLeft) +
                       ",\"deadline\":" + std::to_string(report.deadline) + ",\"params\":[";
    for (std::size_t i = 0; i < report.entries.size(); ++i) {
        const TrialEntry& entry = report.entries[i];
        json += (i > 0 ? "," : "") + paramJson(entry.param) +
                ",\"old\":" + optionalString(entry.old) +
                ",\"new\":" + optionalString(entry.value) + "}";
    }
    return json + "]}";
}

std::string refusalJson(const Refusal& refusal) {
    std::string json = "{\"param\":";
    json += refusal.param
                ? paramJson(*refusal.param) + ",\"as_written\":" + jsonString(refusal.written) + "}"
                : std::string("null");
    json += ",\"value\":" + optionalString(refusal.value) + ",\"text\":" + jsonString(refusal.text);
    if (refusal.line > 0) json += ",\"line\":" + std::to_string(refusal.line);
    return json + "}";
}

// One value of get or dump: the parameter with its access (and whether it follows its
// instance's other writes), then the value or the daemon's text for a refused read.
std::string valueJson(const ReadValue& read) {
    const std::string_view access = accessWord(read.param.access);
    std::string json = paramJson(read.param) + ",\"access\":" + jsonString(access) +
                       ",\"follows\":" + (read.param.followsInstance ? "true" : "false") +
                       ",\"value\":" + optionalString(read.value);
    if (!read.value) json += ",\"refused\":" + jsonString(read.refusal);
    return json + "}";
}

}  // namespace

std::FILE* humanOutput(const Invocation& invocation) {
    return invocation.json ? stderr : stdout;
}

void Report::setTrial(const TrialRecord& trial, long long left) {
    hasTrial = true;
    secondsLeft = left;
    deadline = trial.deadline;
    entries = trial.entries;
}

void Report::refuse(Refusal first) {
    if (!refusal) refusal = std::move(first);
}

std::string jsonString(std::string_view text) {
    std::string json = "\"";
    while (!text.empty()) {
        const unsigned char c = static_cast<unsigned char>(text.front());
        std::size_t taken = 1;
        char escape[8];
        if (c == '"' || c == '\\') {
            json += '\\';
            json += static_cast<char>(c);
        } else if (c == '\n') {
            json += "\\n";
        } else if (c == '\r') {
            json += "\\r";
        } else if (c == '\t') {
            json += "\\t";
        } else if (c >= 0x20 && c < 0x7F) {
            json += static_cast<char>(c);
        } else if (c >= 0x80 && (taken = utf8Length(text)) > 0) {
            json.append(text.substr(0, taken));
        } else {
            taken = 1;
            std::snprintf(escape, sizeof escape, "\\u%04x", c);
            json += escape;
        }
        text.remove_prefix(taken);
    }
    return json + "\"";
}

const char* statusWord(int exitStatus) {
    for (const auto& [status, word] : kStatusWords)
        if (status == exitStatus) return word;
    return "unknown";
}

std::string reportJson(int exitStatus, const Report& report) {
    std::string json = "{\"status\":" + jsonString(statusWord(exitStatus)) +
                       ",\"exit\":" + std::to_string(exitStatus);
    if (report.unreachable != nullptr) json += ",\"unreachable\":" + jsonString(report.unreachable);
    if (report.hasTrial) json += ",\"trial\":" + trialJson(report);
    if (report.refusal) json += ",\"refusal\":" + refusalJson(*report.refusal);
    if (report.hasValues) {
        json += ",\"values\":[";
        for (std::size_t i = 0; i < report.values.size(); ++i)
            json += (i > 0 ? "," : "") + valueJson(report.values[i]);
        json += "]";
    }
    if (!report.counts.empty()) {
        json += ",\"counts\":{";
        for (std::size_t i = 0; i < report.counts.size(); ++i)
            json += (i > 0 ? "," : "") + jsonString(report.counts[i].first) + ":" +
                    std::to_string(report.counts[i].second);
        json += "}";
    }
    return json + "}";
}

std::string nameErrorJson(const NameProblem& problem) {
    std::string json = "{\"status\":" + jsonString(statusWord(kExitUsage)) +
                       ",\"exit\":" + std::to_string(kExitUsage) +
                       ",\"name_error\":{\"name\":" + jsonString(problem.name) + ",\"access\":" +
                       (problem.access.empty() ? "null" : jsonString(problem.access)) +
                       ",\"close\":[";
    for (std::size_t i = 0; i < problem.close.size(); ++i)
        json += (i > 0 ? "," : "") + jsonString(problem.close[i]);
    return json + "]}}";
}

}  // namespace cfgctl
