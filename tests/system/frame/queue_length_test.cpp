// Lengths of the queues at start that do not fit into 32 bits: their lower half counts.
#include "support/store_proxy.h"
#include "support/system_test.h"

namespace testbed {
namespace {

class QueueLength : public SystemTest {
  protected:
    void SetUp() override { startStore(); }

    void answer(const std::string& queue, const std::string& length) {
        proxy.setFilter([=](const Words& command) {
            return command == Words{"LLEN", queue}
                       ? StoreProxy::Verdict::reply(":" + length + "\r\n")
                       : StoreProxy::Verdict::pass;
        });
    }
    void expectFailure(const Words& lines) {
        expectExitStatus({.bySignal = false, .value = 255});
        for (const std::string& line : lines) {
            expectErrorLine(line);
        }
        runDaemon({.environment = {{"TSAN_OPTIONS", "report_thread_leaks=0"}}});
    }

    static constexpr const char* createQueue = "&&/redfish/v1/SessionService/Sessions/POSTCREATEQ";
    static constexpr const char* patchQueue = "&&/redfish/v1/SessionService/PATCHQ";
    StoreProxy proxy{controller};
};

TEST_F(QueueLength, WithAnEmptyLowerHalfIsThatOfAnEmptiedStore) {
    answer(createQueue, "4294967296");
    startDaemon();
    EXPECT_EQ(countLogged("SessionService is ready for service."), 1);
    EXPECT_EQ(store().lrange(createQueue), Words{createChannel});
}

TEST_F(QueueLength, WithAPositiveLowerHalfIsThatOfAKeptStore) {
    answer(createQueue, "4294967297");
    startDaemon();
    EXPECT_EQ(countLogged("SessionService resource has been initialized already."), 1);
    EXPECT_FALSE(store().exists(createQueue));
}

TEST_F(QueueLength, WithANegativeLowerHalfIsAFailure) {
    answer(createQueue, "2147483648");
    expectFailure({"Failed to access Redis."});
    EXPECT_FALSE(store().exists(createQueue));
}

TEST_F(QueueLength, OfThePatchRequestsIsReadAlike) {
    answer(patchQueue, "4294967296");
    startDaemon();
    EXPECT_EQ(store().lrange(patchQueue), Words{patchChannel});
}

TEST_F(QueueLength, OfThePatchRequestsIsAFailureWithANegativeLowerHalf) {
    answer(patchQueue, "2147483648");
    expectFailure({"Failed to get &&/redfish/v1/SessionService/PATCHQ queue length.",
                   "Error occurs while initialize data: Failed to get queue length"});
    EXPECT_FALSE(store().exists(patchQueue));
}

}  // namespace
}  // namespace testbed
