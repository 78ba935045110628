#include "auth/pam_conversation.h"

#include <gtest/gtest.h>
#include <security/pam_appl.h>
#include <stdio_ext.h>
#include <sys/mman.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <optional>

#include "base/file_descriptor.h"
#include "support/captured_output.h"

namespace session_service {
namespace {

// The text is what standard input gives while this lives.
class StandardInput {
  public:
    explicit StandardInput(const std::string& text)
        : original(dup(STDIN_FILENO)), file(memfd_create("input", MFD_CLOEXEC)) {
        EXPECT_EQ(pwrite(file.get(), text.data(), text.size(), 0),
                  static_cast<ssize_t>(text.size()));
        become(file.get());
    }
    StandardInput(const StandardInput&) = delete;
    StandardInput& operator=(const StandardInput&) = delete;
    ~StandardInput() { become(original.get()); }

  private:
    static void become(int descriptor) {
        __fpurge(stdin);
        std::clearerr(stdin);
        dup2(descriptor, STDIN_FILENO);
    }

    FileDescriptor original;
    FileDescriptor file;
};

// A null answer, as messages without a question get it, is an empty optional.
using Answers = std::vector<std::optional<std::string>>;

class Conversation : public testing::Test {
  protected:
    // Holds the conversation and takes the answers over.
    int converse(const std::vector<pam_message>& messages) {
        std::vector<const pam_message*> pointers;
        for (const pam_message& message : messages) {
            pointers.push_back(&message);
        }
        pam_response nobody{};
        pam_response* responses = &nobody;
        const int status = pamConversation(static_cast<int>(messages.size()), pointers.data(),
                                           &responses, password.data());
        answers.clear();
        if (status == PAM_SUCCESS) {
            for (std::size_t i = 0; i < messages.size(); ++i) {
                const char* text = responses[i].resp;
                answers.push_back(text ? std::optional<std::string>(text) : std::nullopt);
                EXPECT_EQ(responses[i].resp_retcode, 0);
                std::free(responses[i].resp);
            }
            std::free(responses);
        } else {
            EXPECT_EQ(responses, nullptr);
        }
        return status;
    }

    std::string password = "correct horse";
    Answers answers;
};

const pam_message passwordPrompt{PAM_PROMPT_ECHO_OFF, "Password: "};
const pam_message visiblePrompt{PAM_PROMPT_ECHO_ON, "Code: "};

TEST_F(Conversation, AnswersTheHiddenPromptWithThePassword) {
    EXPECT_EQ(converse({passwordPrompt}), PAM_SUCCESS);
    EXPECT_EQ(answers, Answers{"correct horse"});
    password = "";
    EXPECT_EQ(converse({passwordPrompt}), PAM_SUCCESS);
    EXPECT_EQ(answers, Answers{""});
}

TEST_F(Conversation, FailsForAnyOtherHiddenPrompt) {
    for (const char* prompt : {"Password:", "password: ", "Password:  ", "New password: ", ""}) {
        EXPECT_EQ(converse({{PAM_PROMPT_ECHO_OFF, prompt}}), PAM_CONV_ERR) << prompt;
    }
    EXPECT_EQ(converse({{PAM_PROMPT_ECHO_OFF, nullptr}}), PAM_CONV_ERR);
}

TEST_F(Conversation, AnswersAVisiblePromptWithALineOfInput) {
    const StandardInput input("12345\nrest\n");
    EXPECT_EQ(standardErrorOf([&] { EXPECT_EQ(converse({visiblePrompt}), PAM_SUCCESS); }),
              "Code: ");
    EXPECT_EQ(answers, Answers{"12345\n"});
}

TEST_F(Conversation, TakesAtMost511CharactersOfALine) {
    const StandardInput input(std::string(600, '1') + '\n');
    standardErrorOf([&] { EXPECT_EQ(converse({visiblePrompt}), PAM_SUCCESS); });
    EXPECT_EQ(answers, Answers{std::string(511, '1')});
}

TEST_F(Conversation, FailsAtTheEndOfTheInput) {
    const StandardInput input("");
    standardErrorOf([&] {
        EXPECT_EQ(converse({passwordPrompt, visiblePrompt, passwordPrompt}), PAM_CONV_ERR);
    });
}

TEST_F(Conversation, ShowsErrorsOnStandardError) {
    const std::string shown = standardErrorOf([&] {
        EXPECT_EQ(converse({{PAM_ERROR_MSG, "Account locked"},
                            {PAM_ERROR_MSG, "Wait\n"},
                            {PAM_ERROR_MSG, ""},
                            {PAM_ERROR_MSG, "\n"},
                            {PAM_ERROR_MSG, "100%s%n"}}),
                  PAM_SUCCESS);
    });
    EXPECT_EQ(shown, "Account locked\nWait\n\n100%s%n\n");
    EXPECT_EQ(answers, Answers(5, std::nullopt));
}

TEST_F(Conversation, ShowsInformationOnStandardOutput) {
    const std::string shown = standardOutputOf([&] {
        EXPECT_EQ(converse({{PAM_TEXT_INFO, "Last login: today"},
                            {PAM_TEXT_INFO, "Welcome\n"},
                            {PAM_TEXT_INFO, ""},
                            {PAM_TEXT_INFO, "100%s%n"}}),
                  PAM_SUCCESS);
    });
    EXPECT_EQ(shown, "Last login: today\nWelcome\n100%s%n\n");
    EXPECT_EQ(answers, Answers(4, std::nullopt));
}

TEST_F(Conversation, ShowsNothingForAMessageWithoutText) {
    EXPECT_EQ(standardErrorOf([&] {
                  EXPECT_EQ(converse({{PAM_ERROR_MSG, nullptr}}), PAM_SUCCESS);
              }),
              "");
}

TEST_F(Conversation, FailsForAnUnknownStyle) {
    for (const int style : {0, 5, 7, -1}) {
        EXPECT_EQ(converse({passwordPrompt, {style, "Password: "}}), PAM_CONV_ERR) << style;
    }
}

TEST_F(Conversation, AnswersAMixtureInItsOrder) {
    const StandardInput input("first\nsecond\n");
    std::string shown;
    const std::string errors = standardErrorOf([&] {
        shown = standardOutputOf([&] {
            EXPECT_EQ(converse({{PAM_TEXT_INFO, "Hello"},
                                visiblePrompt,
                                passwordPrompt,
                                {PAM_ERROR_MSG, "Careful"},
                                visiblePrompt}),
                      PAM_SUCCESS);
        });
    });
    EXPECT_EQ(shown, "Hello\n");
    EXPECT_EQ(errors, "Code: Careful\nCode: ");
    EXPECT_EQ(answers,
              (Answers{std::nullopt, "first\n", "correct horse", std::nullopt, "second\n"}));
}

TEST_F(Conversation, FailsWholeWhereverItFails) {
    const pam_message other{PAM_PROMPT_ECHO_OFF, "PIN: "};
    EXPECT_EQ(converse({other, passwordPrompt, passwordPrompt}), PAM_CONV_ERR);
    EXPECT_EQ(converse({passwordPrompt, other, passwordPrompt}), PAM_CONV_ERR);
    EXPECT_EQ(converse({passwordPrompt, passwordPrompt, other}), PAM_CONV_ERR);
}

TEST_F(Conversation, FailsWhereAMessageIsMissing) {
    const pam_message* messages[] = {&passwordPrompt, nullptr};
    pam_response nobody{};
    pam_response* responses = &nobody;
    EXPECT_EQ(pamConversation(2, messages, &responses, password.data()), PAM_CONV_ERR);
    EXPECT_EQ(responses, nullptr);
}

TEST_F(Conversation, TakesUpTo32Messages) {
    EXPECT_EQ(converse(std::vector<pam_message>(32, passwordPrompt)), PAM_SUCCESS);
    EXPECT_EQ(answers, Answers(32, "correct horse"));
}

TEST_F(Conversation, RefusesWrongInput) {
    const pam_message* messages[33] = {};
    std::fill(std::begin(messages), std::end(messages), &passwordPrompt);
    pam_response nobody{};
    pam_response* responses = nullptr;
    void* data = password.data();
    const auto refusal = [&](int count, const pam_message** given, pam_response** out, void* with) {
        responses = &nobody;
        return standardErrorOf(
            [&] { EXPECT_EQ(pamConversation(count, given, out, with), PAM_CONV_ERR); });
    };
    const std::string line = "[Error]: PAM converse - input data error.\n";
    for (const int count : {0, -1, 33}) {
        EXPECT_EQ(refusal(count, messages, &responses, data), line);
        EXPECT_EQ(responses, nullptr) << count;
    }
    EXPECT_EQ(refusal(1, nullptr, &responses, data), line);
    EXPECT_EQ(responses, nullptr);
    EXPECT_EQ(refusal(1, messages, &responses, nullptr), line);
    EXPECT_EQ(responses, nullptr);
    EXPECT_EQ(refusal(1, messages, nullptr, data), line);
}

}  // namespace
}  // namespace session_service
