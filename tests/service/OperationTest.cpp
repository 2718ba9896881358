#include "core/Operation.h"

#include <gtest/gtest.h>

#include <regex>

namespace {

using Core::Operation;
using Core::OperationStatus;

TEST(AnOperation, DrawsARandomIdentifierThatItsCopiesKeep) {
    const std::regex uuid("[0-9a-f]{8}-[0-9a-f]{4}-4[0-9a-f]{3}-[89ab][0-9a-f]{3}-[0-9a-f]{12}");
    const Operation first;
    const Operation second;
    EXPECT_TRUE(std::regex_match(first.id(), uuid)) << first.id();
    EXPECT_NE(first.id(), second.id());
    EXPECT_EQ(Operation(first).id(), first.id()); // NOLINT: the copy is the point
}

TEST(AnOperation, CallsItsHookOnEverySetWithTheStateAlreadyStored) {
    std::vector<std::pair<OperationStatus, std::uint32_t>> seen;
    Operation operation;
    operation.setStatusChanged(
        [&](const Operation& changed) { seen.emplace_back(changed.status(), changed.errorCode()); });
    auto copy = operation;
    operation.setStatus(OperationStatus::InProgress);
    operation.setStatus(OperationStatus::InProgress);
    copy.setErrorCode(7);
    copy.setStatus(OperationStatus::Failed);
    EXPECT_EQ(seen, (decltype(seen){{OperationStatus::InProgress, 0},
                                    {OperationStatus::InProgress, 0},
                                    {OperationStatus::Failed, 7}}));
    EXPECT_FALSE(operation.isCompleted());
    EXPECT_TRUE(copy.isCompleted());
    EXPECT_THROW(operation.setStatusChanged({}), std::bad_function_call);
    Operation().setStatus(OperationStatus::Finished);
}

TEST(AnOperation, TravelsWithoutItsPathAndInitiator) {
    Operation operation;
    operation.setType(Core::OperationType::Remove);
    operation.setPackageId("com.example.app");
    operation.setPackagePath("/secret");
    operation.setErrorCode(13);
    operation.setStatus(OperationStatus::Failed);
    EXPECT_EQ(operation.record(), Common::OperationRecord(operation.id(), "com.example.app", 2, 101, 13));
}

} // namespace
