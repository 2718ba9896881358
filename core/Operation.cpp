#include "core/Operation.h"

#include <boost/uuid/random_generator.hpp>
#include <boost/uuid/uuid_io.hpp>

namespace Core {

Operation::Operation()
    : id_(to_string(boost::uuids::random_generator()())) {}

bool Operation::isCompleted() const {
    return status_ == OperationStatus::Finished || status_ == OperationStatus::Failed;
}

Common::OperationRecord Operation::record() const {
    return {id_, packageId_, type_, status_, static_cast<Common::ErrorCode>(errorCode_)};
}

void Operation::setStatusChanged(StatusHook hook) {
    if (!hook) {
        throw std::bad_function_call();
    }
    statusChanged_ = std::move(hook);
}

void Operation::setStatus(OperationStatus status) {
    status_ = status;
    statusChanged_(*this);
}

} // namespace Core
