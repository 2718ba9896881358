#pragma once

#include <rpm/rpmts.h>

#include <memory>
#include <type_traits>

namespace Common::Rpm {

/// A librpm transaction set on the real root, with librpm's configured verification. Copies share the set.
/// Used by one thread at a time.
class Transaction {
public:
    /// Loads the configuration and makes the set. Throws Error, code Internal, when librpm cannot make one.
    Transaction();

    [[nodiscard]] rpmts get() const { return set_.get(); }

private:
    std::shared_ptr<std::remove_pointer_t<rpmts>> set_;
};

} // namespace Common::Rpm
