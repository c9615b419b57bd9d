#pragma once

#include "base/ProcessArguments.h"
#include "llm/NetworkFetch.h"
#include "llm/PreparedRequest.h"

#include <QByteArray>
#include <optional>

namespace velnora {

// A request run in a short-lived process of this executable. The TLS stack and the network caches a
// request loads leave with that process instead of staying mapped in the long-lived tray process.
// The parent writes one request frame to the worker's standard input; the worker answers with body
// frames and one end frame on standard output, then exits. End of its input ends it at once.
namespace FetchWorker {

inline constexpr const char* flag = "--fetch-worker";

// What a frame from the worker carries.
struct Frame
{
    enum class Kind : quint8 { body = 'B', end = 'E' };
    Kind kind = Kind::body;
    std::optional<int> status;              // the HTTP status, once the headers have arrived
    QByteArray bytes;                       // body: the piece
    bool last = false;                      // body: the final piece
    std::optional<ProviderFailure> failure; // end: none when the exchange succeeded
};

// Frames are a 32-bit big-endian length, then the payload.
QByteArray encodeRequest(const PreparedRequest& request);
std::optional<PreparedRequest> decodeRequest(const QByteArray& payload);
QByteArray encodeFrame(const Frame& frame);
std::optional<Frame> decodeFrame(const QByteArray& payload);
// Takes one whole frame's payload off the front of `buffer`; none while it is incomplete. A length
// beyond `limit` is a broken stream: `broken` is set and nothing is taken.
std::optional<QByteArray> takeFrame(QByteArray& buffer, qsizetype limit, bool* broken);

// The worker process: reads the request, sends it, reports, exits (0 once the end frame is out).
int run(const ProcessArguments& arguments);

} // namespace FetchWorker

} // namespace velnora
