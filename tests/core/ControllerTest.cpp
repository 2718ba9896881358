#include "core/Controller.h"

#include "testbed/LogCapture.h"
#include "testbed/PrivateBus.h"
#include "testbed/ScriptedPeers.h"
#include "testbed/WaitUntil.h"

#include <gmock/gmock.h>

namespace Testbed {

namespace {

using Core::Operation;
using Core::OperationStatus;
using Core::OperationType;
using testing::ElementsAre;
using testing::IsEmpty;

std::unique_ptr<Common::BusClient> sessionClient(const std::string& name) {
    return std::make_unique<Common::BusClient>(
        Common::BusEndpoint{Common::Bus::Session, "norvane.RuntimeManager", "/norvane/RuntimeManager/" + name,
                            "norvane.RuntimeManager." + name});
}

class AController : public testing::Test {
protected:
    void SetUp() override {
        controller.emplace(sessionClient("Intents1"), sessionClient("Control1"));
        controller->start();
    }

    Operation operation(OperationType type, Operation::StatusHook hook) const {
        Operation made;
        made.setType(type);
        made.setInitiator(initiator);
        made.setPackageId("a");
        made.setStatusChanged(std::move(hook));
        return made;
    }
    std::vector<OperationStatus> listed() {
        std::vector<OperationStatus> statuses;
        for (const auto& each : controller->operationsOf(initiator)) {
            statuses.push_back(each.status());
        }
        return statuses;
    }

    const Common::CallerIdentity initiator{true, ":1.1", "app", "user"};
    LogCapture log;
    PrivateBuses buses;
    PackageManager zul;
    std::optional<Core::Controller> controller;
};

TEST_F(AController, ListsQueuedRunningAndAwaitingOperationsInThisOrder) {
    zul.hold("Install");
    for (const auto type : {OperationType::Upgrade, OperationType::Install, OperationType::Remove}) {
        controller->enqueue(operation(type, [](const Operation&) {}));
    }
    ASSERT_TRUE(zul.waitForCalls("Install", 1));
    zul.answer("Install");
    ASSERT_TRUE(zul.waitForCalls("Install", 2));
    using enum OperationStatus;
    EXPECT_THAT(listed(), ElementsAre(Queued, InProgress, AwaitingUpgrade));
    EXPECT_THAT(controller->operationsOf({true, ":1.1", "app", "other"}), IsEmpty());
    zul.answer("Install", "norvane.ZUL.Error.Filesystem");
    EXPECT_TRUE(waitUntil([&] { return listed() == std::vector{AwaitingUpgrade}; }));
}

TEST_F(AController, MayBeUsedByHooksWhichMayThrow) {
    std::promise<void> ended;
    controller->enqueue(operation(OperationType::Remove, [&](const Operation& changed) {
        if (changed.status() == OperationStatus::Queued) {
            EXPECT_THAT(listed(), ElementsAre(OperationStatus::Queued));
            const auto begun = [&] { return !zul.calls("Remove").empty(); };
            EXPECT_FALSE(waitUntil(begun, std::chrono::milliseconds(200))) << "before Queued was announced";
        }
        // What is announced may be overtaken by what happens, never the other way round.
        EXPECT_LE(listed().size(), changed.isCompleted() ? 0 : 1);
        controller->addCompletedOperation(changed);
        if (changed.isCompleted()) {
            ended.set_value();
        }
        throw std::runtime_error("a hook's own trouble");
    }));
    waitFor(ended);
    EXPECT_THAT(controller->takeCompletedOperations({true, ":1.9", "other", "user"}), IsEmpty());
    std::vector<OperationStatus> statuses;
    for (const auto& each : controller->takeCompletedOperations({true, ":1.9", "app", "user"})) {
        statuses.push_back(each.status());
    }
    EXPECT_THAT(statuses,
                ElementsAre(OperationStatus::Queued, OperationStatus::InProgress, OperationStatus::Finished));
    EXPECT_THAT(controller->takeCompletedOperations(initiator), IsEmpty());
    EXPECT_TRUE(waitUntil([&] { return log.lines().size() == 6; })) << log.text();
    EXPECT_EQ(log.lines().at(1), "ERROR: a hook's own trouble");
}

TEST_F(AController, DoesNotCarryOutWhatItDoesNotKnow) {
    controller->enqueue(operation(static_cast<OperationType>(7), [](const Operation&) {}));
    EXPECT_TRUE(waitUntil([&] { return !log.text().empty(); }));
    EXPECT_THAT(log.lines(), ElementsAre("WARN: unexpected operation type: 7"));
    EXPECT_THAT(listed(), ElementsAre(OperationStatus::InProgress));
    controller->enqueue(operation(OperationType::Remove, [](const Operation&) {}));
    EXPECT_TRUE(waitUntil([&] { return listed().empty(); }));
}

TEST(AControllerWithoutItsSubscription, IsNotMade) {
    const PrivateBus system;
    const PrivateBus session("<limit name='max_match_rules_per_connection'>0</limit>");
    setenv("DBUS_SYSTEM_BUS_ADDRESS", system.address().c_str(), 1);
    setenv("DBUS_SESSION_BUS_ADDRESS", session.address().c_str(), 1);
    const auto result = run({VENDARA_DAEMON});
    EXPECT_EQ(result.status, 1);
    EXPECT_THAT(result.output,
                testing::MatchesRegex("ERROR: [^\n]+\nERROR: couldn't register service: norvane.Vendara\n"
                                      "ERROR: Couldn't subscribe to RuntimeManager signal\n"));
}

} // namespace

} // namespace Testbed
