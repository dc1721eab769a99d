// Why a server probably said no. Most of its answers do not tell, so what can be asked is asked
// afterwards. Nothing here throws but what says so. Main thread only.
#pragma once

#include <cstdint>
#include <string>

#include "apps/zem/client/zemclient.h"
#include "apps/zem/client/zemerror.h"

namespace zem {

struct CommandLine;

struct Why {
    std::string text;            // begins with ": "; empty where nothing was found out
    const char* word = nullptr;  // of kReason…; null for what is a guess, and nothing
};

// A refusal with its reason. Where that is certain the user is not sent to the server's log, which
// has one line for a file that is not there, and no name in it.
CZemError Refused(const std::string& message, const Why& why, int32_t hr = 0);
// The same of a refusal that was caught.
CZemError Explained(const CZemError& error, const Why& why);

// The same of an answer to GET or DELETE.
CZemError RefusedByHttp(const std::string& message, const PageReply& reply, const Why& why);

// Opens a file; a refusal says why.
uint64_t OpenNamed(CZemClient& client, const FileRef& file);
// What is known of a file that is not opened; a refusal says why.
ZemEsDesc InfoNamed(CZemClient& client, const FileRef& file);
// Throws kRefused: nothing of this name is there.
[[noreturn]] void ThrowNoFile(const std::string& name);

// Why no server takes a name, if it is such a one.
Why WhyBadName(const std::u16string& name);
// Why a file could not be created; `replace`: one that exists was to be replaced.
Why WhyNotCreated(CZemClient& client, const std::string& name, bool replace);
// Why there is still nothing of this name, which a directory or a moved file was to have.
Why WhyNotNamed(CZemClient& client, const std::string& name);
// Why what is called `name` is not called `to` now.
Why WhyNotMoved(CZemClient& client, const std::string& name, const std::string& to);
// Why a file is still there. `attributes` are those that it had.
Why WhyNotRemoved(uint32_t attributes);
// Why GET did not send a file that is there.
Why WhyNotSent(uint32_t attributes);
// Why GET or DELETE was refused: their answer is the same for all that can be wrong, so a client
// that joins for this, and leaves, asks. `whyNot` tells of a file that is there.
Why WhyNotServed(const CommandLine& line, const std::string& name, Why (*whyNot)(uint32_t));
// Why a file, of which this is known, could not be opened for writing.
Why WhyNotChanged(const ZemEsDesc& info);
// Why one could not be striped, which a client of this server that has it open does not hinder.
Why WhyNotStriped(CZemClient& client, const ZemEsDesc& info);

// ": its volume is full (1.2 MiB free)" if it is.
Why IfVolumeIsFull(CZemClient& client);

}  // namespace zem
