// PAM conversations with any number and style of messages, with and without texts, and with any
// standard input.
#include "auth/pam_conversation.h"

#include <security/pam_appl.h>

#include <algorithm>
#include <array>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "base/text_file.h"
#include "support/captured_stream.h"
#include "support/input.h"
#include "support/log_lines.h"
#include "support/require.h"

// There when a sanitizer manages the heap.
extern "C" {
int __sanitizer_install_malloc_and_free_hooks(void (*allocated)(const volatile void*, std::size_t),
                                              void (*freed)(const volatile void*))
    __attribute__((weak));
std::size_t __sanitizer_get_allocated_size(const volatile void* memory) __attribute__((weak));
}

namespace session_service {
namespace {

constexpr std::size_t maxMessages = 32;

// What freed memory must not hold.
std::array<std::string_view, 2> secrets;

void inspectFreed(const volatile void* memory) {
    const auto* text = static_cast<const char*>(const_cast<const void*>(memory));
    for (const std::string_view secret : secrets) {
        if (memory && !secret.empty()) {
            const std::string_view block(text, __sanitizer_get_allocated_size(text));
            require(block.find(secret) == std::string_view::npos,
                    "what is not handed over is wiped");
        }
    }
}

void watchHeap() {
    static const bool watched = __sanitizer_install_malloc_and_free_hooks &&
                                __sanitizer_install_malloc_and_free_hooks(
                                    [](const volatile void*, std::size_t) {}, inspectFreed) != 0;
    static_cast<void>(watched);
}

// While it lives, standard input gives this text.
class StandardInput {
  public:
    explicit StandardInput(std::string& text)
        : file(fmemopen(text.data(), text.size(), "r")),
          original(std::exchange(stdin, file.get())) {}
    StandardInput(const StandardInput&) = delete;
    StandardInput& operator=(const StandardInput&) = delete;
    ~StandardInput() { stdin = original; }

  private:
    FilePtr file;
    std::FILE* original;
};

struct Message {
    int style = 0;
    bool isNull = false;
    std::optional<std::string> text;
};

// A letter for the style, in capitals without a text; '0' is no message at all. Any other
// byte is the number of a style.
Message readMessage(const std::string& piece) {
    Message message;
    if (piece.empty()) {
        return message;
    }
    constexpr std::string_view letters = "hvei";
    const std::size_t style = letters.find(static_cast<char>(piece.front() | 0x20));
    if (style == std::string_view::npos) {
        message.style = piece.front();
        message.isNull = piece.front() == '0';
    } else {
        constexpr std::array styles{PAM_PROMPT_ECHO_OFF, PAM_PROMPT_ECHO_ON, PAM_ERROR_MSG,
                                    PAM_TEXT_INFO};
        message.style = styles.at(style);
    }
    if (style == std::string_view::npos || piece.front() == letters[style]) {
        message.text = piece.substr(1);
    }
    return message;
}

// The expected course of a conversation.
struct Course {
    int status = PAM_SUCCESS;
    std::vector<std::optional<std::string>> answers;
    std::string output;
    std::string errors;
};

std::string shown(const std::string& text) {
    return text.empty() || text.ends_with('\n') ? text : text + '\n';
}

// One message; false when it ends the conversation.
bool expectMessage(const Message& message, const std::string& password, std::string_view& input,
                   Course& course) {
    const std::string text = message.text.value_or("");
    std::optional<std::string> answer;
    if (message.isNull) {
        return false;
    }
    if (message.style == PAM_PROMPT_ECHO_OFF) {
        if (text != "Password: ") {
            return false;
        }
        answer = password;
    } else if (message.style == PAM_PROMPT_ECHO_ON) {
        course.errors += text;
        const std::size_t lineFeed = std::min(input.find('\n'), input.size());
        const std::string line(input.substr(0, std::min<std::size_t>(lineFeed + 1, 511)));
        input.remove_prefix(line.size());
        if (line.empty()) {
            return false;
        }
        answer = line.c_str();
    } else if (message.style == PAM_ERROR_MSG) {
        course.errors += shown(text);
    } else if (message.style == PAM_TEXT_INFO) {
        course.output += shown(text);
    } else {
        return false;
    }
    course.answers.push_back(answer);
    return true;
}

Course expectedCourse(const std::vector<Message>& messages, const std::string& password,
                      std::string_view input) {
    Course course;
    if (messages.empty() || messages.size() > maxMessages) {
        course.status = PAM_CONV_ERR;
        course.errors = errorLine("PAM converse - input data error.");
        return course;
    }
    for (const Message& message : messages) {
        if (!expectMessage(message, password, input, course)) {
            course.status = PAM_CONV_ERR;
            course.answers.clear();
            break;
        }
    }
    return course;
}

// The first line of the text, when it can be recognised: a short one may be in memory by chance,
// and one that is also shown is in memory anyway.
std::string_view recognisable(std::string_view text, const Course& expected) {
    constexpr std::size_t shortest = 8;
    constexpr std::size_t maxLength = 500;
    const std::string_view line = text.substr(0, std::min(text.find('\n'), maxLength));
    const bool shownToo = expected.output.find(line) != std::string::npos ||
                          expected.errors.find(line) != std::string::npos;
    return line.size() < shortest || shownToo ? std::string_view() : line;
}

// As a module does, which owns the answers.
std::vector<std::optional<std::string>> takeAnswers(pam_response* responses, std::size_t count) {
    std::vector<std::optional<std::string>> answers;
    for (std::size_t i = 0; i < count; ++i) {
        require(responses[i].resp_retcode == 0, "no answer bears a code");
        char* answer = responses[i].resp;
        answers.push_back(answer ? std::optional<std::string>(answer) : std::nullopt);
        std::free(answer);
    }
    std::free(responses);
    return answers;
}

Course hold(const std::vector<Message>& messages, std::string& password, std::string& input,
            const Course& expected) {
    std::vector<pam_message> texts;
    std::vector<const pam_message*> pointers;
    texts.reserve(messages.size());
    for (const Message& message : messages) {
        texts.push_back({message.style, message.text ? message.text->c_str() : nullptr});
        pointers.push_back(message.isNull ? nullptr : &texts.back());
    }
    const StandardInput given(input);
    const CapturedStream output(stdout);
    const CapturedStream errors(stderr);
    pam_response untouched{};
    pam_response* responses = &untouched;
    Course course;
    secrets = {recognisable(password.c_str(), expected), recognisable(input.c_str(), expected)};
    course.status = pamConversation(static_cast<int>(messages.size()), pointers.data(), &responses,
                                    password.data());
    secrets = {};
    if (course.status == PAM_SUCCESS) {
        course.answers = takeAnswers(responses, messages.size());
    } else {
        require(!responses || messages.empty() || messages.size() > maxMessages,
                "a conversation that fails hands nothing over");
    }
    course.output = output.written();
    course.errors = errors.written();
    return course;
}

}  // namespace
}  // namespace session_service

// The sections: the password, what standard input gives, the messages.
extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    using namespace session_service;
    openLog();
    watchHeap();
    InputSections sections(data, size);
    std::string password = sections.nextText();
    std::string input = sections.next();
    std::vector<Message> messages;
    while (sections.hasMore()) {
        messages.push_back(readMessage(sections.nextText()));
    }
    const Course expected = expectedCourse(messages, password, input);
    const Course course = hold(messages, password, input, expected);
    require(course.status == expected.status, "the messages decide whether it succeeds");
    require(course.answers == expected.answers, "every question has its answer");
    require(course.output == expected.output && course.errors == expected.errors,
            "messages are shown as they are");
    return 0;
}
