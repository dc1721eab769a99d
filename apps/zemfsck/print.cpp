// The two forms of a report.
#include "apps/zemfsck/print.h"

#include <cstdio>
#include <cstring>

using namespace zemstore;

namespace zemfsck {
namespace {

const char* StateOf(const LoadReport::Root& root) {
    switch (root.state) {
        case LoadReport::RootState::kValid:
            return "valid";
        case LoadReport::RootState::kBlank:
            return "blank";
        default:
            return "invalid";
    }
}

std::string IdOf(const FileHeader& header) {
    std::string text;
    for (const uint8_t byte : header.fileId.bytes) {
        char two[3];
        snprintf(two, sizeof two, "%02x", byte);
        text += two;
    }
    return text;
}

std::string Number(uint64_t value) {
    return std::to_string(value);
}

std::string WhyNot(HRESULT hr) {
    struct Row {
        HRESULT hr;
        const char* text;
    };
    static const Row kRows[] = {
        {HRESULT_FROM_WIN32(ERROR_BAD_FORMAT), "not a native media file"},
        {HRESULT_FROM_WIN32(ERROR_SHARING_VIOLATION), "it is being written"},
        {HRESULT_FROM_WIN32(ERROR_FILE_NOT_FOUND), "no such file"},
        {HRESULT_FROM_WIN32(ERROR_PATH_NOT_FOUND), "no such directory"},
        {HRESULT_FROM_WIN32(ERROR_IO_DEVICE), "the device failed"},
        {HRESULT_FROM_WIN32(ERROR_DIRECTORY), "a directory; name files"},
        {E_ACCESSDENIED, "not a regular file, or no permission to read it"},
        {E_OUTOFMEMORY, "not enough memory"},
    };
    for (const Row& row : kRows)
        if (row.hr == hr) return row.text;
    char text[16];
    snprintf(text, sizeof text, "0x%08X", static_cast<unsigned>(hr));
    return std::string("error ") + text;
}

// File names are bytes that need not be UTF-8: what is not ASCII goes out as it came.
std::string Quoted(const std::string& text) {
    std::string out = "\"";
    for (const char c : text) {
        const auto byte = static_cast<unsigned char>(c);
        if (c == '"' || c == '\\') {
            out += '\\';
            out += c;
        } else if (byte < 0x20 || byte == 0x7F) {
            char escape[8];
            snprintf(escape, sizeof escape, "\\u%04x", byte);
            out += escape;
        } else {
            out += c;
        }
    }
    return out + "\"";
}

// Control characters of a name do not reach the terminal.
std::string Shown(const std::string& text) {
    std::string out = text;
    for (char& c : out)
        if (static_cast<unsigned char>(c) < 0x20 || c == 0x7F) c = '?';
    return out;
}

std::string FindingAsText(const Finding& finding) {
    std::string line = finding.damage ? "  DAMAGE " : "  remark ";
    line += finding.part;
    if (finding.position >= 0) line += ", position " + std::to_string(finding.position);
    if (finding.offset_bytes >= 0) line += ", offset " + std::to_string(finding.offset_bytes);
    return line + ": " + finding.text + "\n";
}

std::string FindingAsJson(const Finding& finding) {
    std::string out = "{\"damage\":";
    out += finding.damage ? "true" : "false";
    out += ",\"part\":" + Quoted(finding.part);
    if (finding.position >= 0) out += ",\"position\":" + std::to_string(finding.position);
    if (finding.offset_bytes >= 0) out += ",\"offset\":" + std::to_string(finding.offset_bytes);
    return out + ",\"text\":" + Quoted(finding.text) + "}";
}

}  // namespace

std::string AsText(const std::string& name, const Report& report) {
    std::string out = Shown(name) + ": " + Number(report.size_bytes) + " bytes, " +
                      MediaTypeText(report.header.esDesc.mediaType) + ", file id " +
                      IdOf(report.header) + "\n";
    if (report.loaded) {
        const LoadReport& load = report.load;
        out += "  roots: ";
        for (int i = 0; i < 2; ++i) {
            out += std::string(i == 0 ? "" : ", ") + StateOf(load.roots[i]);
            if (load.roots[i].state == LoadReport::RootState::kValid)
                out += " generation " + Number(load.roots[i].generation);
        }
        out += "; index pages: " + Number(report.indexNodes) + "\n";
        out += "  log behind the checkpoint: " + Number(load.tailBytes) + " bytes from " +
               Number(load.logStart_bytes) + ", " + Number(load.tailRecords) + " records, " +
               Number(load.tornRecords) + " cut off\n";
        out += "  frames: " + Number(report.frameCount) + ", present " + Number(report.present) +
               " (" + Number(report.dataBytes) + " bytes), erased " + Number(report.erased) +
               ", holes " + Number(report.holes) + ", damaged " + Number(report.damagedFrames) +
               "\n";
    }
    for (const Finding& finding : report.findings)
        out += FindingAsText(finding);
    const uint64_t all = report.damages + report.remarks;
    if (all > report.findings.size())
        out += "  and " + Number(all - report.findings.size()) + " more\n";
    if (report.damages == 0) return out + "  clean\n";
    return out + "  " + Number(report.damages) + (report.damages == 1 ? " damage\n" : " damages\n");
}

std::string AsJson(const std::string& name, const Report& report) {
    std::string out = "{\"file\":" + Quoted(name) + ",\"result\":";
    out += report.damages == 0 ? "\"clean\"" : "\"damaged\"";
    out += ",\"size\":" + Number(report.size_bytes) +
           ",\"type\":" + Quoted(MediaTypeText(report.header.esDesc.mediaType)) +
           ",\"file_id\":" + Quoted(IdOf(report.header));
    if (report.loaded) {
        const LoadReport& load = report.load;
        out += ",\"roots\":[";
        for (int i = 0; i < 2; ++i) {
            out += std::string(i == 0 ? "" : ",") + "{\"state\":" + Quoted(StateOf(load.roots[i])) +
                   ",\"generation\":" + Number(load.roots[i].generation) + "}";
        }
        out += "],\"index_pages\":" + Number(report.indexNodes);
        out += ",\"log\":{\"start\":" + Number(load.logStart_bytes) +
               ",\"bytes\":" + Number(load.tailBytes) + ",\"records\":" + Number(load.tailRecords) +
               ",\"cut_off\":" + Number(load.tornRecords) + "}";
        out += ",\"frames\":{\"count\":" + Number(report.frameCount) +
               ",\"present\":" + Number(report.present) + ",\"erased\":" + Number(report.erased) +
               ",\"holes\":" + Number(report.holes) +
               ",\"damaged\":" + Number(report.damagedFrames) +
               ",\"bytes\":" + Number(report.dataBytes) + "}";
        out += ",\"dead_bytes\":" + Number(report.deadBytes);
    }
    out += ",\"damages\":" + Number(report.damages) + ",\"remarks\":" + Number(report.remarks) +
           ",\"findings\":[";
    for (size_t i = 0; i < report.findings.size(); ++i)
        out += (i == 0 ? "" : ",") + FindingAsJson(report.findings[i]);
    return out + "]}\n";
}

std::string FailureAsText(const std::string& name, HRESULT hr) {
    return Shown(name) + ": not checked: " + WhyNot(hr) + "\n";
}

std::string FailureAsJson(const std::string& name, HRESULT hr) {
    return "{\"file\":" + Quoted(name) + ",\"result\":\"unchecked\",\"why\":" + Quoted(WhyNot(hr)) +
           "}\n";
}

}  // namespace zemfsck
