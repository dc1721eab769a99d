// The HTTP Server API, version 1.0, as far as the tree uses it: names, record layouts and error
// numbers as on 64-bit Windows. The calls may be made from any thread. How this implementation
// differs from the kernel's own is listed at the top of http_api.cpp.
#pragma once

#include "platform/posix/errors.h"

struct sockaddr;
using PSOCKADDR = sockaddr*;

#define HTTP_INITIALIZE_SERVER 0x00000001
#define HTTP_INITIALIZE_CONFIG 0x00000002
#define HTTP_RECEIVE_REQUEST_FLAG_COPY_BODY 0x00000001
#define HTTP_RECEIVE_REQUEST_ENTITY_BODY_FLAG_FILL_BUFFER 0x00000001
#define HTTP_SEND_RESPONSE_FLAG_DISCONNECT 0x00000001
#define HTTP_REQUEST_FLAG_MORE_ENTITY_BODY_EXISTS 0x00000001

using HTTP_OPAQUE_ID = ULONGLONG;
using HTTP_REQUEST_ID = HTTP_OPAQUE_ID;
using HTTP_CONNECTION_ID = HTTP_OPAQUE_ID;
using HTTP_RAW_CONNECTION_ID = HTTP_OPAQUE_ID;
using HTTP_URL_CONTEXT = ULONGLONG;

#define HTTP_NULL_ID (0ull)
#define HTTP_BYTE_RANGE_TO_EOF (static_cast<ULONGLONG>(-1))

struct HTTP_BYTE_RANGE {
    ULARGE_INTEGER StartingOffset;
    ULARGE_INTEGER Length;
};

struct HTTP_VERSION {
    USHORT MajorVersion;
    USHORT MinorVersion;
};

enum HTTP_VERB {
    HttpVerbUnparsed = 0,
    HttpVerbUnknown,
    HttpVerbInvalid,
    HttpVerbOPTIONS,
    HttpVerbGET,
    HttpVerbHEAD,
    HttpVerbPOST,
    HttpVerbPUT,
    HttpVerbDELETE,
    HttpVerbTRACE,
    HttpVerbCONNECT,
    HttpVerbTRACK,
    HttpVerbMOVE,
    HttpVerbCOPY,
    HttpVerbPROPFIND,
    HttpVerbPROPPATCH,
    HttpVerbMKCOL,
    HttpVerbLOCK,
    HttpVerbUNLOCK,
    HttpVerbSEARCH,
    HttpVerbMaximum
};

// Requests and responses share the numbers below 20; from there each has its own names.
enum HTTP_HEADER_ID {
    HttpHeaderCacheControl = 0,
    HttpHeaderConnection = 1,
    HttpHeaderDate = 2,
    HttpHeaderKeepAlive = 3,
    HttpHeaderPragma = 4,
    HttpHeaderTrailer = 5,
    HttpHeaderTransferEncoding = 6,
    HttpHeaderUpgrade = 7,
    HttpHeaderVia = 8,
    HttpHeaderWarning = 9,
    HttpHeaderAllow = 10,
    HttpHeaderContentLength = 11,
    HttpHeaderContentType = 12,
    HttpHeaderContentEncoding = 13,
    HttpHeaderContentLanguage = 14,
    HttpHeaderContentLocation = 15,
    HttpHeaderContentMd5 = 16,
    HttpHeaderContentRange = 17,
    HttpHeaderExpires = 18,
    HttpHeaderLastModified = 19,
    HttpHeaderAccept = 20,
    HttpHeaderAcceptCharset = 21,
    HttpHeaderAcceptEncoding = 22,
    HttpHeaderAcceptLanguage = 23,
    HttpHeaderAuthorization = 24,
    HttpHeaderCookie = 25,
    HttpHeaderExpect = 26,
    HttpHeaderFrom = 27,
    HttpHeaderHost = 28,
    HttpHeaderIfMatch = 29,
    HttpHeaderIfModifiedSince = 30,
    HttpHeaderIfNoneMatch = 31,
    HttpHeaderIfRange = 32,
    HttpHeaderIfUnmodifiedSince = 33,
    HttpHeaderMaxForwards = 34,
    HttpHeaderProxyAuthorization = 35,
    HttpHeaderReferer = 36,
    HttpHeaderRange = 37,
    HttpHeaderTe = 38,
    HttpHeaderTranslate = 39,
    HttpHeaderUserAgent = 40,
    HttpHeaderRequestMaximum = 41,
    HttpHeaderAcceptRanges = 20,
    HttpHeaderAge = 21,
    HttpHeaderEtag = 22,
    HttpHeaderLocation = 23,
    HttpHeaderProxyAuthenticate = 24,
    HttpHeaderRetryAfter = 25,
    HttpHeaderServer = 26,
    HttpHeaderSetCookie = 27,
    HttpHeaderVary = 28,
    HttpHeaderWwwAuthenticate = 29,
    HttpHeaderResponseMaximum = 30,
    HttpHeaderMaximum = 41
};

struct HTTP_KNOWN_HEADER {
    USHORT RawValueLength;  // bytes, without the NUL that follows a received value
    PCSTR pRawValue;
};

struct HTTP_UNKNOWN_HEADER {
    USHORT NameLength;
    USHORT RawValueLength;
    PCSTR pName;
    PCSTR pRawValue;
};
using PHTTP_UNKNOWN_HEADER = HTTP_UNKNOWN_HEADER*;

// Fragment-cache chunks are not supported: a response with one fails with ERROR_INVALID_PARAMETER.
enum HTTP_DATA_CHUNK_TYPE {
    HttpDataChunkFromMemory = 0,
    HttpDataChunkFromFileHandle,
    HttpDataChunkFromFragmentCache,
    HttpDataChunkFromFragmentCacheEx,
    HttpDataChunkMaximum
};

struct HTTP_DATA_CHUNK {
    HTTP_DATA_CHUNK_TYPE DataChunkType;
    union {
        struct {
            PVOID pBuffer;
            ULONG BufferLength;
        } FromMemory;
        struct {
            HTTP_BYTE_RANGE ByteRange;
            HANDLE FileHandle;
        } FromFileHandle;
        struct {
            USHORT FragmentNameLength;
            PCWSTR pFragmentName;
        } FromFragmentCache;
    };
};
using PHTTP_DATA_CHUNK = HTTP_DATA_CHUNK*;

struct HTTP_REQUEST_HEADERS {
    USHORT UnknownHeaderCount;
    PHTTP_UNKNOWN_HEADER pUnknownHeaders;
    USHORT TrailerCount;
    PHTTP_UNKNOWN_HEADER pTrailers;
    HTTP_KNOWN_HEADER KnownHeaders[HttpHeaderRequestMaximum];
};

struct HTTP_RESPONSE_HEADERS {
    USHORT UnknownHeaderCount;
    PHTTP_UNKNOWN_HEADER pUnknownHeaders;
    USHORT TrailerCount;
    PHTTP_UNKNOWN_HEADER pTrailers;
    HTTP_KNOWN_HEADER KnownHeaders[HttpHeaderResponseMaximum];
};

struct HTTP_TRANSPORT_ADDRESS {
    PSOCKADDR pRemoteAddress;
    PSOCKADDR pLocalAddress;
};

// UTF-16; the lengths are bytes. The parts point into the full URL, so only the last is followed by
// a NUL.
struct HTTP_COOKED_URL {
    USHORT FullUrlLength;
    USHORT HostLength;
    USHORT AbsPathLength;
    USHORT QueryStringLength;
    PCWSTR pFullUrl;
    PCWSTR pHost;
    PCWSTR pAbsPath;
    PCWSTR pQueryString;
};

struct HTTP_SSL_INFO;
struct HTTP_REQUEST_INFO;
struct HTTP_RESPONSE_INFO;

struct HTTP_REQUEST_V1 {
    ULONG Flags;
    HTTP_CONNECTION_ID ConnectionId;
    HTTP_REQUEST_ID RequestId;
    HTTP_URL_CONTEXT UrlContext;
    HTTP_VERSION Version;
    HTTP_VERB Verb;
    USHORT UnknownVerbLength;
    USHORT RawUrlLength;
    PCSTR pUnknownVerb;
    PCSTR pRawUrl;
    HTTP_COOKED_URL CookedUrl;
    HTTP_TRANSPORT_ADDRESS Address;
    HTTP_REQUEST_HEADERS Headers;
    ULONGLONG BytesReceived;
    USHORT EntityChunkCount;
    PHTTP_DATA_CHUNK pEntityChunks;
    HTTP_RAW_CONNECTION_ID RawConnectionId;
    HTTP_SSL_INFO* pSslInfo;
};

struct HTTP_REQUEST_V2 : HTTP_REQUEST_V1 {
    USHORT RequestInfoCount;
    HTTP_REQUEST_INFO* pRequestInfo;
};
using HTTP_REQUEST = HTTP_REQUEST_V2;
using PHTTP_REQUEST = HTTP_REQUEST*;

struct HTTP_RESPONSE_V1 {
    ULONG Flags;
    HTTP_VERSION Version;
    USHORT StatusCode;
    USHORT ReasonLength;
    PCSTR pReason;
    HTTP_RESPONSE_HEADERS Headers;
    USHORT EntityChunkCount;
    PHTTP_DATA_CHUNK pEntityChunks;
};

struct HTTP_RESPONSE_V2 : HTTP_RESPONSE_V1 {
    USHORT ResponseInfoCount;
    HTTP_RESPONSE_INFO* pResponseInfo;
};
using HTTP_RESPONSE = HTTP_RESPONSE_V2;
using PHTTP_RESPONSE = HTTP_RESPONSE*;

struct HTTPAPI_VERSION {
    USHORT HttpApiMajorVersion;
    USHORT HttpApiMinorVersion;
};
#define HTTPAPI_VERSION_1 \
    { 1, 0 }

static_assert(sizeof(HTTP_BYTE_RANGE) == 16 && sizeof(HTTP_DATA_CHUNK) == 32);
static_assert(offsetof(HTTP_DATA_CHUNK, FromMemory) == 8);
static_assert(sizeof(HTTP_KNOWN_HEADER) == 16 && sizeof(HTTP_UNKNOWN_HEADER) == 24);
static_assert(sizeof(HTTP_REQUEST_HEADERS) == 688 && sizeof(HTTP_RESPONSE_HEADERS) == 512);
static_assert(sizeof(HTTP_COOKED_URL) == 40 && sizeof(HTTP_TRANSPORT_ADDRESS) == 16);
static_assert(sizeof(HTTP_REQUEST_V1) == 848 && sizeof(HTTP_REQUEST) == 864);
static_assert(sizeof(HTTP_RESPONSE_V1) == 552 && sizeof(HTTP_RESPONSE) == 568);

#include "platform/posix/http_calls.h"
