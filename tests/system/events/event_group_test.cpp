// The identifiers that tie the events of one request together.
#include "support/permissive_pam_test.h"

namespace testbed {
namespace {

class EventGroup : public PermissivePamTest {
  protected:
    // The identifier of the next login; both of its events carry it.
    std::string draw() {
        const std::size_t before = lifeCycleEvents(store()).size();
        EXPECT_EQ(login().status(), "OK");
        emptyCollection();
        const std::vector<Words> events = lifeCycleEvents(store());
        if (events.size() != before + 2) {
            return "no pair of events";
        }
        EXPECT_EQ(events[before].at(3), events[before + 1].at(3));
        return events[before].at(3);
    }
    std::string counter() { return store().hget(eventServiceUri, eventGroupCounter); }
    void setCounter(const std::string& value) {
        store().hset(eventServiceUri, {{eventGroupCounter, value}});
    }
    void setMaximum(const std::string& value) {
        store().hset("webDefaultValue", {{"MAX_EVENT_GROUP_ID", value}});
    }
};

constexpr char invalid[] = "The default max value was set to invalid value.";
constexpr char notIncreased[] = "Failed to increase the counter &&EVENT_GROUP_ID_COUNTER";
constexpr char notReset[] = "Failed to reset the EventGroupId counter.";

TEST_F(EventGroup, RunsFromOneToTheMaximumAndBeginsAnew) {
    setMaximum("3");
    Words drawn;
    Words counters;
    for (int i = 0; i < 7; ++i) {
        drawn.push_back(draw());
        counters.push_back(counter());
    }
    EXPECT_EQ(drawn, (Words{"1", "2", "3", "1", "2", "3", "1"}));
    EXPECT_EQ(counters, (Words{"1", "2", "0", "1", "2", "0", "1"}));
}

TEST_F(EventGroup, IsAlwaysOneWhenThatIsTheMaximum) {
    setMaximum("1");
    for (int i = 0; i < 3; ++i) {
        EXPECT_EQ(draw(), "1");
        EXPECT_EQ(counter(), "0");
    }
}

TEST_F(EventGroup, GoesOnWhereOtherServicesLeftTheCounter) {
    setCounter("41");
    EXPECT_EQ(draw(), "42");
    store().run({"HINCRBY", eventServiceUri, eventGroupCounter, "10"});
    EXPECT_EQ(draw(), "53");
}

TEST_F(EventGroup, BeginsAtOneWithoutACounter) {
    store().del(eventServiceUri);
    EXPECT_EQ(draw(), "1");
    EXPECT_EQ(counter(), "1");
}

TEST_F(EventGroup, OfACounterAboveTheMaximumIsTheMaximumOnce) {
    setMaximum("10");
    setCounter("500");
    EXPECT_EQ(draw(), "10");
    EXPECT_EQ(counter(), "0");
    EXPECT_EQ(draw(), "1");
}

TEST_F(EventGroup, OfACounterOutOfRangeIsTheMaximum) {
    setMaximum("10");
    // Of these the lower 32 bits count, without a sign.
    for (const char* value : {"-1", "-5", "-2147483649", "4294967295", "9", "4294967305"}) {
        setCounter(value);
        EXPECT_EQ(draw(), "10") << value;
        EXPECT_EQ(counter(), "0") << value;
    }
}

TEST_F(EventGroup, OfACounterBeyond32BitsIsItsLowerHalf) {
    setMaximum("10");
    setCounter("4294967301");
    EXPECT_EQ(draw(), "6");
    EXPECT_EQ(counter(), "4294967302");
}

TEST_F(EventGroup, WithoutAMaximumRunsTo2147483647) {
    store().run({"HDEL", "webDefaultValue", "MAX_EVENT_GROUP_ID"});
    setCounter("2147483645");
    EXPECT_EQ(draw(), "2147483646");
    EXPECT_EQ(draw(), "2147483647");
    EXPECT_EQ(counter(), "0");
    EXPECT_EQ(draw(), "1");
}

TEST_F(EventGroup, WithAMaximumThatIsNoNumberSaysSoEachTime) {
    for (const char* maximum : {"text", "", " ", "-", "#12"}) {
        setMaximum(maximum);
        setCounter("99999");
        EXPECT_EQ(draw(), "100000") << maximum;
    }
    EXPECT_EQ(tagsOf("Max EventGroupId value type error stoi"), Words(5, "[Debug]"));
    EXPECT_EQ(tagsOf(invalid), Words(5, "[Debug]"));
}

TEST_F(EventGroup, WithAMaximumOutOfRangeSaysSoEachTime) {
    for (const char* maximum : {"2147483648", "-2147483649", "99999999999999999999"}) {
        setMaximum(maximum);
        setCounter("99999");
        EXPECT_EQ(draw(), "100000") << maximum;
    }
    EXPECT_EQ(tagsOf("Max EventGroupId value out of range stoi"), Words(3, "[Debug]"));
    EXPECT_EQ(tagsOf(invalid), Words(3, "[Debug]"));
}

TEST_F(EventGroup, WithAMaximumThatIsNotPositiveSaysSoEachTime) {
    for (const char* maximum : {"0", "-4", "-0", "0x7f"}) {
        setMaximum(maximum);
        setCounter("99999");
        EXPECT_EQ(draw(), "100000") << maximum;
    }
    EXPECT_EQ(countLogged(invalid), 4);
}

TEST_F(EventGroup, WithAFractionAsMaximumSaysNothing) {
    for (const char* maximum : {"10.5", ".", "3.", "text."}) {
        setMaximum(maximum);
        setCounter("99999");
        EXPECT_EQ(draw(), "100000") << maximum;
    }
    EXPECT_EQ(countLogged(invalid), 0);
}

TEST_F(EventGroup, WithAMaximumOfTheMarkItselfReadsItAgain) {
    setMaximum("2147483647");
    EXPECT_EQ(draw(), "1");
    setMaximum("2");
    EXPECT_EQ(draw(), "2");
    EXPECT_EQ(counter(), "0");
    EXPECT_EQ(countLogged(invalid), 0);
}

TEST_F(EventGroup, TakesAMaximumThatComesLaterAndKeepsTheFirstValidOne) {
    setMaximum("text");
    EXPECT_EQ(draw(), "1");
    setMaximum("2");
    EXPECT_EQ(draw(), "2");
    setMaximum("65535");
    EXPECT_EQ(draw(), "1");
    EXPECT_EQ(draw(), "2");
    EXPECT_EQ(draw(), "1");
}

TEST_F(EventGroup, ReadsTheMaximumUpToItsFirstOtherCharacter) {
    setMaximum(" +2and more");
    EXPECT_EQ(draw(), "1");
    EXPECT_EQ(draw(), "2");
    EXPECT_EQ(draw(), "1");
}

TEST_F(EventGroup, TakesTheChangedMaximumAfterARestart) {
    setMaximum("2");
    draw();
    setMaximum("5");
    restart();
    setCounter("4");
    EXPECT_EQ(draw(), "5");
}

TEST_F(EventGroup, OverwritesACounterThatIsNoNumber) {
    for (const char* value : {"text", "", "1.5", " 7", "9223372036854775807"}) {
        setCounter(value);
        EXPECT_EQ(draw(), "1") << value;
        EXPECT_EQ(counter(), "1") << value;
    }
    EXPECT_EQ(tagsOf(notIncreased), Words(5, "[Debug]"));
    EXPECT_EQ(countLogged(notReset), 0);
}

TEST_F(EventGroup, OverwritesACounterThatIsNoNumberByZeroWhenOneIsTheMaximum) {
    setMaximum("1");
    setCounter("text");
    EXPECT_EQ(draw(), "1");
    EXPECT_EQ(counter(), "0");
}

TEST_F(EventGroup, IsOneWhileTheEventServiceIsOfAnotherKind) {
    corrupt(eventServiceUri);
    EXPECT_EQ(draw(), "1");
    EXPECT_EQ(draw(), "1");
    EXPECT_EQ(tagsOf(notIncreased), Words(2, "[Debug]"));
    EXPECT_EQ(tagsOf(notReset), Words(2, "[Debug]"));
}

TEST_F(EventGroup, IsTheMaximumWhenTheWrapCannotBeStored) {
    setMaximum("1");
    corrupt(eventServiceUri);
    EXPECT_EQ(draw(), "1");
    // Neither the one nor the zero was taken.
    EXPECT_EQ(tagsOf(notReset), Words(2, "[Debug]"));
}

TEST_F(EventGroup, IsDrawnOncePerRequest) {
    const Reply reply = login();
    EXPECT_EQ(counter(), "1");
    frontEnd().remove(reply.location());
    EXPECT_EQ(counter(), "2");
}

TEST_F(EventGroup, IsNotDrawnByARefusedLogin) {
    usePamTest("auth=PAM_AUTH_ERR");
    login();
    EXPECT_EQ(counter(), "0");
}

}  // namespace
}  // namespace testbed
