#include "common/rpm/Transaction.h"

#include "common/Error.h"
#include "common/rpm/Configuration.h"

namespace Common::Rpm {

Transaction::Transaction() {
    readRpmConfiguration();
    set_ = {rpmtsCreate(), rpmtsFree};
    if (!set_ || rpmtsSetRootDir(set_.get(), nullptr) != 0) {
        throw Error(ErrorCode::Internal, "couldn't create rpm transaction");
    }
}

} // namespace Common::Rpm
