#pragma once

#include <atomic>
#include <memory>

namespace tarn {

/// True once the server has ended a TLS connection itself (RFC 8446 6.1).
using TLSClosure = std::shared_ptr<const std::atomic<bool>>;

/// Watches how the connections end that this exchange (CURL*) makes. libcurl takes any end for the end of a body that
/// has no length, also one that somebody on the way has made. Comes before the exchange.
void watchClosures(void* easy);

/// Of the connection that the exchange uses now; nothing without TLS. To be called from within the exchange.
TLSClosure closureOf(void* easy);

}  // namespace tarn
