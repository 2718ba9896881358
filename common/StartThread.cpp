#include "common/StartThread.h"

#include "common/Error.h"

#include <string>
#include <system_error>
#include <utility>

namespace Common {

std::thread startThread(std::function<void()> work) {
    try {
        return std::thread(std::move(work));
    } catch (const std::system_error& error) {
        throw Error(ErrorCode::Internal, std::string("couldn't start a thread: ") + error.what());
    }
}

} // namespace Common
