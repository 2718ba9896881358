#include "core/Controller.h"

#include "testbed/LogCapture.h"
#include "testbed/LoopDriver.h"
#include "testbed/PrivateBus.h"
#include "testbed/ScriptedPeers.h"

#include <gmock/gmock.h>

namespace Testbed {

namespace {

using Core::Operation;
using Core::OperationStatus;
using Core::OperationType;
using testing::ElementsAre;
using testing::IsEmpty;

class AController : public testing::Test {
protected:
    Operation operation(
        OperationType type, Operation::StatusHook hook = [](const Operation&) {}) const {
        Operation made;
        made.setType(type);
        made.setInitiator(initiator);
        made.setPackageId("a");
        made.setStatusChanged(std::move(hook));
        return made;
    }
    std::vector<OperationStatus> listed() const {
        std::vector<OperationStatus> statuses;
        for (const auto& each : controller.operationsOf(initiator)) {
            statuses.push_back(each.status());
        }
        return statuses;
    }
    bool waitForCalls(const std::string& method, std::size_t count) {
        return driver.runUntil([&] { return zul.calls(method).size() >= count; });
    }

    const Common::CallerIdentity initiator{":1.1", "app", "user"};
    LogCapture log;
    PrivateBuses buses;
    PackageManager zul;
    LoopDriver driver;
    Core::Controller controller{driver.session};
};

using enum OperationStatus;

TEST_F(AController, ListsQueuedRunningAndAwaitingOperationsInThisOrder) {
    zul.hold("Install");
    for (const auto type : {OperationType::Upgrade, OperationType::Install, OperationType::Remove}) {
        controller.enqueue(operation(type));
    }
    ASSERT_TRUE(waitForCalls("Install", 1));
    zul.answer("Install");
    ASSERT_TRUE(waitForCalls("Install", 2));
    EXPECT_THAT(listed(), ElementsAre(Queued, InProgress, AwaitingUpgrade));
    EXPECT_THAT(controller.operationsOf({":1.1", "app", "other"}), IsEmpty());
}

TEST_F(AController, ListsCompletedOperationsUntilTheyAreReportedOrStored) {
    std::vector<Operation> ended;
    const auto note = [&](const Operation& changed) {
        if (changed.isCompleted()) {
            ended.push_back(changed);
        }
    };
    zul.refuse("Install", "norvane.ZUL.Error.Filesystem");
    for (const auto type : {OperationType::Remove, OperationType::Install, OperationType::Remove}) {
        controller.enqueue(operation(type, note));
    }
    ASSERT_TRUE(driver.runUntil([&] { return ended.size() == 3; }));
    EXPECT_THAT(listed(), testing::UnorderedElementsAre(Finished, Failed, Finished));
    controller.reported(ended[0]);
    controller.addCompletedOperation(ended[1]);
    EXPECT_THAT(listed(), ElementsAre(Finished));
    EXPECT_THAT(controller.takeCompletedOperations({":1.9", "other", "user"}), IsEmpty());
    const auto stored = controller.takeCompletedOperations({":1.9", "app", "user"});
    ASSERT_EQ(stored.size(), 1);
    EXPECT_EQ(stored[0].errorCode(), 1);
    EXPECT_THAT(controller.takeCompletedOperations(initiator), IsEmpty());
}

TEST_F(AController, DropsAnOperationOfAnUnknownType) {
    controller.enqueue(operation(static_cast<OperationType>(7)));
    EXPECT_TRUE(driver.runUntil([&] { return !log.text().empty(); }));
    EXPECT_THAT(log.lines(), ElementsAre("WARN: unexpected operation type: 7"));
    EXPECT_THAT(listed(), ElementsAre(InProgress));
    controller.enqueue(operation(OperationType::Remove));
    EXPECT_TRUE(driver.runUntil([&] { return listed() == std::vector{Finished}; }));
}

TEST_F(AController, LimitsTheNumberOfOperations) {
    zul.hold("Remove");
    EXPECT_FALSE(controller.isFull(initiator));
    for (std::size_t count = 0; count < Core::Controller::maximumOperations; ++count) {
        controller.enqueue(operation(OperationType::Remove));
    }
    EXPECT_TRUE(controller.isFull(initiator));
    EXPECT_FALSE(controller.isFull({":1.1", "app", "other"}));
    ASSERT_TRUE(waitForCalls("Remove", 1));
    const auto running = controller.operationsOf(initiator).back();
    zul.answer("Remove");
    ASSERT_TRUE(waitForCalls("Remove", 2));
    EXPECT_TRUE(controller.isFull(initiator)) << "until the initiator knows of it";
    controller.reported(running);
    EXPECT_FALSE(controller.isFull(initiator));

    const auto limit = Core::Controller::maximumCompleted;
    std::vector<Operation> completed(limit + 1);
    for (auto& each : completed) {
        each.setInitiator(initiator);
        controller.addCompletedOperation(each);
    }
    EXPECT_EQ(log.lines().size(), 1) << log.text();
    const auto stored = controller.takeCompletedOperations(initiator);
    ASSERT_EQ(stored.size(), limit);
    EXPECT_EQ(stored.front().id(), completed[1].id()) << "the oldest goes first";
}

TEST_F(AController, LimitsTheNumberOfRestarts) {
    auto& control = controller.launchControl();
    for (std::size_t count = 0; count <= Core::LaunchControl::maximumRestarts; ++count) {
        const auto id = "a" + std::to_string(count);
        EXPECT_THROW(driver.await(control.restartApplication(id, LoopDriver::soon())), sdbus::Error);
    }
    EXPECT_THAT(log.lines(), testing::Contains("WARN: dropped the oldest of too many restarts: a0"));
}

TEST(TheController, RequiresItsSubscription) {
    const PrivateBuses buses("<limit name='max_match_rules_per_connection'>0</limit>");
    const auto result = run({VENDARA_DAEMON});
    EXPECT_EQ(result.status, 1);
    EXPECT_THAT(result.output,
                testing::MatchesRegex("ERROR: [^\n]+\nERROR: couldn't register service: norvane.Vendara\n"
                                      "ERROR: Couldn't subscribe to RuntimeManager signal\n"));
}

} // namespace

} // namespace Testbed
