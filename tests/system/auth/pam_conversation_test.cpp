// The daemon's side of PAM conversations, in every style and number of messages.
#include <security/pam_appl.h>

#include "support/login_test.h"

namespace testbed {
namespace {

class PamConversation : public LoginTest {
  protected:
    // One login whose module asks as told; returns what it recorded of its question.
    PamRecord ask(const std::string& arguments, const std::string& password = "secret") {
        controller.removeFile("/tmp/pam.records");
        usePamTest("env=PRIVILEGES=1 " + arguments);
        result = privilegeOf("somebody", password);
        return pamRecords().at(0);
    }
    void expectAnswers(const PamRecord& record, const Words& answers) {
        EXPECT_EQ(record.at("conversation"), std::to_string(PAM_SUCCESS));
        EXPECT_EQ(record.at("answers"), "given");
        Words given;
        while (record.contains("answer" + std::to_string(given.size()))) {
            given.push_back(record.at("answer" + std::to_string(given.size())));
        }
        EXPECT_EQ(given, answers);
        EXPECT_EQ(result, "1");
    }
    // The module gets no answer at all, and the login fails.
    void expectFailure(const PamRecord& record) {
        EXPECT_EQ(record.at("conversation"), std::to_string(PAM_CONV_ERR));
        EXPECT_EQ(record.at("answers"), "null");
        EXPECT_EQ(result, "AUTH_FAILED");
    }

  private:
    std::string result;
};

TEST_F(PamConversation, AnswersTheHiddenPromptWithThePassword) {
    expectAnswers(ask("[prompt=Password: ]"), {"secret"});
}

TEST_F(PamConversation, FailsAtEveryOtherHiddenPrompt) {
    for (const char* prompt : {"Password:", "password: ", "Password:  ", "PIN: ", " Password: ",
                               "Current Password: ", ""}) {
        SCOPED_TRACE(prompt);
        expectFailure(ask("[prompt=" + std::string(prompt) + "]"));
    }
}

TEST_F(PamConversation, AnswersUpToThirtyTwoMessages) {
    expectAnswers(ask("messages=2"), Words(2, "secret"));
    expectAnswers(ask("messages=32"), Words(32, "secret"));
}

TEST_F(PamConversation, RefusesAnyOtherNumberOfMessages) {
    expectErrorLine("PAM converse - input data error.");
    long refused = 0;
    for (const char* count : {"0", "33", "-1", "1000"}) {
        SCOPED_TRACE(count);
        expectFailure(ask("messages=" + std::string(count)));
        EXPECT_EQ(countLogged("PAM converse - input data error."), ++refused);
    }
}

TEST_F(PamConversation, FailsAtAStyleThatItDoesNotKnow) {
    for (const char* style : {"0", "5", "7", "77", "-1"}) {
        SCOPED_TRACE(style);
        expectFailure(ask("style=" + std::string(style)));
    }
}

TEST_F(PamConversation, WritesErrorTextsOnLinesOfTheirOwnToStandardError) {
    expectAnswers(ask("style=error [prompt=Caps lock is on]"), {""});
    expectAnswers(ask("style=error prompt=twice messages=2"), {"", ""});
    EXPECT_EQ(controller.daemonErrors(), "Caps lock is on\ntwice\ntwice\n");
    expectAnswers(ask("style=error line_feed [prompt=Ends by itself]"), {""});
    expectAnswers(ask("style=error prompt="), {""});
    EXPECT_EQ(controller.daemonErrors(), "Caps lock is on\ntwice\ntwice\nEnds by itself\n");
}

TEST_F(PamConversation, WritesInformationOnLinesOfItsOwnToStandardOutput) {
    expectAnswers(ask("style=info [prompt=Last login: never]"), {""});
    EXPECT_EQ(controller.daemonOutput(), "Last login: never\n");
    expectAnswers(ask("style=info line_feed [prompt=Ends by itself]"), {""});
    expectAnswers(ask("style=info prompt="), {""});
    expectAnswers(ask("style=info [prompt=100%s of %n]"), {""});
    EXPECT_EQ(controller.daemonOutput(), "Last login: never\nEnds by itself\n100%s of %n\n");
    EXPECT_EQ(controller.daemonErrors(), "");
}

TEST_F(PamConversation, WithoutStandardInputFailsAtAVisiblePrompt) {
    expectFailure(ask("style=echo_on [prompt=Your name: ]"));
    EXPECT_EQ(controller.daemonErrors(), "Your name: ");
}

// With lines on the daemon's standard input.
class PamConversationWithInput : public PamConversation {
  protected:
    void SetUp() override {}
    void startWithInput(const std::string& text) {
        controller.writeFile("/tmp/input", text);
        startStore();
        startDaemon({.input = controller.path("/tmp/input")});
    }
};

TEST_F(PamConversationWithInput, AnswersAVisiblePromptWithALineOfIt) {
    startWithInput("first\nsecond\n\nlast");
    expectAnswers(ask("style=echo_on [prompt=Token code: ]"), {"first\n"});
    EXPECT_EQ(controller.daemonErrors(), "Token code: ");
    expectAnswers(ask("style=echo_on [prompt=Token code: ] messages=2"), {"second\n", "\n"});
    EXPECT_EQ(controller.daemonErrors(), "Token code: Token code: Token code: ");
    EXPECT_EQ(controller.daemonOutput(), "");
    expectAnswers(ask("style=echo_on prompt=%s%n"), {"last"});
}

TEST_F(PamConversationWithInput, ReadsALongLineInPieces) {
    startWithInput(std::string(511, 'a') + std::string(511, 'b') + "c\n");
    expectAnswers(ask("style=echo_on messages=3"),
                  {std::string(511, 'a'), std::string(511, 'b'), "c\n"});
}

TEST_F(PamConversationWithInput, GivesNoAnswerAtAllWhenTheInputEndsBetweenTwoOfThem) {
    startWithInput("only\n");
    expectFailure(ask("style=echo_on messages=2"));
}

}  // namespace
}  // namespace testbed
