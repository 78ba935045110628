// How requests are published to the daemon.
#include "support/permissive_pam_test.h"

namespace testbed {
namespace {

using Queues = PermissivePamTest;
using Notice = PermissivePamTest;
using CreateThread = PermissivePamTest;

TEST_F(Queues, NameTheChannelOfEachKindOfRequestOnce) {
    EXPECT_EQ(store().lrange("&&/redfish/v1/SessionService/Sessions/POSTCREATEQ"),
              (Words{"&&/redfish/v1/SessionService/Sessions/CreateNewSession"}));
    EXPECT_EQ(store().lrange("&&/redfish/v1/SessionService/Sessions/DELETEQ"),
              (Words{"&&/redfish/v1/SessionService/Sessions/DeleteSession"}));
    EXPECT_EQ(store().lrange("&&/redfish/v1/SessionService/PATCHQ"),
              (Words{"&&/redfish/v1/SessionService/CHANNEL"}));
}

TEST_F(Queues, AreNotPoppedByRequests) {
    const Reply reply = login();
    frontEnd().remove(reply.location());
    EXPECT_EQ(store().llen("&&/redfish/v1/SessionService/Sessions/POSTCREATEQ"), 1);
    EXPECT_EQ(store().llen("&&/redfish/v1/SessionService/Sessions/DELETEQ"), 1);
}

TEST_F(CreateThread, AndTheDeleteThreadSayThatTheyRun) {
    EXPECT_EQ(tagsOf("Create session thread is running ..."), Words{"[Debug]"});
    EXPECT_EQ(tagsOf("Delete session thread is running ..."), Words{"[Debug]"});
}

TEST_F(CreateThread, ListensOnceOnItsChannel) {
    for (const char* channel : {createChannel, deleteChannel, patchChannel}) {
        EXPECT_EQ(store().run({"PUBSUB", "NUMSUB", channel}).elements.at(1).integer, 1);
    }
}

TEST_F(CreateThread, HandlesRequestsStrictlyOneAfterTheOther) {
    holdPam();
    std::vector<Request> requests;
    for (int i = 0; i < 4; ++i) {
        requests.push_back(frontEnd().prepareLogin("user" + std::to_string(i), "a password"));
        requests.back().send();
    }
    waitUntilPamHolds();
    EXPECT_EQ(pamRecords().size(), 1U);
    releasePam();
    for (Request& request : requests) {
        EXPECT_EQ(request.reply().status(), "OK");
    }
    Words users;
    for (const PamRecord& record : pamRecords()) {
        if (record.at("entry") == "auth") {
            users.push_back(record.at("user"));
        }
    }
    EXPECT_EQ(users, (Words{"user0", "user1", "user2", "user3"}));
}

TEST_F(CreateThread, LetsLogoutsPassWhileALoginIsInHand) {
    const InsertedSession inserted = frontEnd().insertSession();
    holdPam();
    Request request = frontEnd().prepareLogin("alice", "a password");
    request.send();
    waitUntilPamHolds();
    EXPECT_EQ(frontEnd().remove(inserted.uri).status(), "OK_EMPTY");
    EXPECT_FALSE(request.publishedAlready());
    releasePam();
    EXPECT_EQ(request.reply().status(), "OK");
}

TEST_F(Notice, SplitsAtItsFirstBlankOnly) {
    const Reply reply = login({.replyKey = "&&/request/a reply  key "});
    EXPECT_EQ(reply.published, "&&/request/a reply  key ");
    EXPECT_EQ(reply.status(), "OK");
}

TEST_F(Notice, WithoutABlankHasTheReplyWrittenIntoTheRequest) {
    Request request = frontEnd().prepareLogin(
        "alice", "a password", {.requestKey = "&&/request/one", .replyKey = "&&/request/one"});
    request.send("&&/request/one");
    const Reply reply = request.reply();
    EXPECT_EQ(reply.published, "&&/request/one");
    EXPECT_EQ(reply.status(), "OK");
    EXPECT_EQ(reply["&&RequestMethod"], "POST");
    EXPECT_EQ(reply.messages, (std::vector<Message>{{"Base.1.12.Created", {}}}));
}

TEST_F(Notice, OfNothingOrOfBlanksIsIgnored) {
    const Snapshot before = snapshot();
    Monitor monitor = controller.monitor();
    for (const char* text : {"", " ", "  ", " &&EXIT", " reply key"}) {
        EXPECT_EQ(store().publish(createChannel, text), 1);
    }
    EXPECT_EQ(changedSince(before), Words{});
    const Reply reply = login();
    EXPECT_EQ(reply.status(), "OK");
    // No request was read but the one.
    int requests = 0;
    for (const MonitoredCommand& command : monitor.soFar()) {
        requests += command.words[0] == "HGETALL" && command.words[1] != reply.published ? 1 : 0;
    }
    EXPECT_EQ(requests, 1);
}

TEST_F(Notice, OfMoreOrLessThanTheExitWordIsARequestLikeAnyOther) {
    expectErrorLine("Create session: &&ReturnChannel not found.");
    const Words notices{"&&EXIT ", "&&EXIT reply", "&&EXIT&&EXIT", "&&exit", "&&EXI", "EXIT"};
    for (const std::string& notice : notices) {
        EXPECT_EQ(store().publish(createChannel, notice), 1);
    }
    EXPECT_EQ(login().status(), "OK");
    EXPECT_EQ(countLogged("Create session: &&ReturnChannel not found."),
              static_cast<long>(notices.size()));
}

TEST_F(Notice, OfAnyTextHarmsNobody) {
    expectErrorLine("Create session: &&ReturnChannel not found.");
    const Words notices{"%s%n%s%n %s%n",
                        "\n \n",
                        "\"'`$(touch /tmp/started) ;|&",
                        std::string(100000, 'k') + " " + std::string(100000, 'r'),
                        std::string("&&EXIT\0more", 11),
                        "\xff\xfe \xff"};
    for (const std::string& notice : notices) {
        EXPECT_EQ(store().publish(createChannel, notice), 1);
        if (notice.rfind("&&EXIT", 0) == 0) {
            // The text ends at its zero byte: the thread is told to end.
            waitUntil("nobody listens", [&] {
                return store().run({"PUBSUB", "NUMSUB", createChannel}).elements.at(1).integer == 0;
            });
            restart();
        }
    }
    EXPECT_EQ(login().status(), "OK");
}

TEST_F(Notice, OfARequestIsServedAgainEachTimeItIsPublished) {
    Request request = frontEnd().prepareLogin("alice", "a password");
    request.send();
    const std::string first = request.reply().location();
    request.send();
    EXPECT_NE(request.reply().location(), first);
    EXPECT_EQ(store().llen(membersKey), 2);
}

TEST_F(Notice, MayComeAsPartOfATransactionOrFromAScript) {
    Request request = frontEnd().prepareLogin("alice", "a password");
    store().run({"EVAL", "return redis.call('PUBLISH', KEYS[1], KEYS[2] .. ' ' .. KEYS[3])", "3",
                 createChannel, request.requestKey(), request.replyKey()});
    EXPECT_EQ(request.reply().status(), "OK");
}

TEST_F(Notice, ForAChannelWithoutListenersIsAnsweredInTheStoreAllTheSame) {
    Request request = frontEnd().prepareLogin("alice", "a password");
    store().hset(request.requestKey(), {{"&&ReturnChannel", "&&/request/nobody/listens"}});
    request.send();
    waitUntil("the audit entry is written", [&] { return !auditEntries(store()).empty(); });
    EXPECT_EQ(store().hget(request.replyKey(), "&&ReturnStatus"), "OK");
    EXPECT_EQ(login().status(), "OK");
}

}  // namespace
}  // namespace testbed
