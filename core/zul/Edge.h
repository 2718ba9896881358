#pragma once

#include "common/Error.h"

#include <exception>
#include <system_error>

namespace Core::ZUL {

/// Rethrows the exception being handled as a Common::Error. Public functions that read files end with
/// "catch (...) { throwAsError(); }".
[[noreturn]] inline void throwAsError() {
    using Common::Error;
    using Common::ErrorCode;
    try {
        throw;
    } catch (const Error&) {
        throw;
    } catch (const std::system_error& error) {
        throw Error(ErrorCode::Filesystem, error.what());
    } catch (const std::exception& error) {
        throw Error(ErrorCode::Internal, error.what());
    }
}

} // namespace Core::ZUL
