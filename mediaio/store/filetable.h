// The process's open media files, one shared object for each file however many
// channels opened it and under whatever names. Any thread; opening one file never waits for
// another.
#pragma once

#include "mediaio/store/mediafile.h"

#pragma GCC visibility push(default)

namespace zemstore {

// The shared object of an open file, loaded; the caller owns a reference. `file` is consumed;
// `openedAs` is what the log calls it if it was not open yet.
HRESULT ShareMediaFile(std::unique_ptr<IStoreFile> file, const std::shared_ptr<IAsyncIo>& async,
                       const std::string& openedAs, CMediaFile*& shared);

// For tear-down checks: returns when no media file is open any more.
void AwaitNoMediaFiles();

}  // namespace zemstore

#pragma GCC visibility pop
