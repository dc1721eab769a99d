// An index without reading the file through, from the tables that containers
// have. What was taken from them is compared with packets that the demuxer delivers, at the
// beginning of every stream, before it is believed. One thread.
#pragma once

#include "mediaio/foreign/clipindex.h"
#include "mediaio/foreign/demuxer.h"

#pragma GCC visibility push(default)

namespace zemstore {

// Finds the frames of all streams of `index` (made by DescribeStreams). False when the container
// has no table, or one that does not say it all: then the file has to be scanned.
bool TakeContainerIndex(CDemuxer& demuxer, IStoreFile& file, uint64_t size_bytes, ClipIndex& index);

// The same for an MXF file with its index tables (mxfindex.cpp).
bool TakeMxfIndex(CDemuxer& demuxer, IStoreFile& file, uint64_t size_bytes, ClipIndex& index);

// Reads every packet of the file. What was found until a failure stays.
HRESULT ScanFile(CDemuxer& demuxer, IStoreFile& file, uint64_t size_bytes, ClipIndex& index);

// Which stream of the index a packet is of; their number when of none.
size_t StreamOf(const ClipIndex& index, const AVPacket& packet);

// True when the file holds exactly these bytes there.
bool HoldsBytes(IStoreFile& file, uint64_t offset, const uint8_t* bytes, size_t size);

// What can be had without a pass. ERROR_BAD_FORMAT: no container. S_FALSE: BuildByPass is needed.
HRESULT BuildFromTables(IStoreFile& file, uint64_t size_bytes, ClipIndex& index);
// Reads the whole file. ERROR_BAD_FORMAT: nothing in it. ERROR_OPERATION_ABORTED: StopAll.
HRESULT BuildByPass(IStoreFile& file, uint64_t size_bytes, ClipIndex& index);

}  // namespace zemstore

#pragma GCC visibility pop
