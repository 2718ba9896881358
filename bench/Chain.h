#pragma once

namespace Bench {

/// The minimal work for a request: the same round trips to the same peers, one after another, and the reply.
/// "norvane.Vendara.Chain" on the session bus has "Install", "GetAllProperties" and "Start". Serves until it
/// is killed.
[[noreturn]] void serveChain();

} // namespace Bench
