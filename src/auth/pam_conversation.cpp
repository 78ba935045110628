#include "auth/pam_conversation.h"

#include <security/pam_appl.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>

#include "frame/logger.h"

namespace session_service {
namespace {

constexpr int maxMessages = 32;
constexpr std::size_t inputSize = 512;

// The array of answers and how far it is filled. What PAM does not take over is wiped.
struct DiscardResponses {
    int count;
    void operator()(pam_response* responses) const noexcept {
        for (int i = 0; i < count; ++i) {
            if (char* text = responses[i].resp) {
                explicit_bzero(text, std::strlen(text));
                std::free(text);
            }
        }
        std::free(responses);
    }
};
using ResponsesPtr = std::unique_ptr<pam_response, DiscardResponses>;

bool answer(pam_response& response, const char* text) {
    response.resp = strdup(text);
    return response.resp != nullptr;
}

bool answerFromInput(pam_response& response, const char* prompt) {
    std::fputs(prompt, stderr);
    char line[inputSize];
    const bool answered = std::fgets(line, sizeof(line), stdin) && answer(response, line);
    explicit_bzero(line, sizeof(line));
    return answered;
}

void show(std::FILE* stream, const char* text) {
    const std::size_t length = std::strlen(text);
    const bool unterminated = length > 0 && text[length - 1] != '\n';
    std::fprintf(stream, "%s%s", text, unterminated ? "\n" : "");
}

bool converse(const pam_message& message, pam_response& response, const char* password) {
    const char* text = message.msg ? message.msg : "";
    switch (message.msg_style) {
        case PAM_PROMPT_ECHO_OFF:
            return std::strcmp(text, "Password: ") == 0 && answer(response, password);
        case PAM_PROMPT_ECHO_ON:
            return answerFromInput(response, text);
        case PAM_ERROR_MSG:
            show(stderr, text);
            return true;
        case PAM_TEXT_INFO:
            show(stdout, text);
            return true;
        default:
            return false;
    }
}

}  // namespace

int pamConversation(int messageCount, const pam_message** messages, pam_response** responses,
                    void* applicationData) {
    if (responses) {
        *responses = nullptr;
    }
    if (!messages || !responses || !applicationData || messageCount <= 0 ||
        messageCount > maxMessages) {
        logger->error("PAM converse - input data error.");
        return PAM_CONV_ERR;
    }
    ResponsesPtr answers(static_cast<pam_response*>(std::calloc(
                             static_cast<std::size_t>(messageCount), sizeof(pam_response))),
                         DiscardResponses{messageCount});
    if (!answers) {
        logger->error("Failed to calloc memory to response buffer.");
        return PAM_BUF_ERR;
    }
    const char* password = static_cast<const char*>(applicationData);
    for (int i = 0; i < messageCount; ++i) {
        if (!messages[i] || !converse(*messages[i], answers.get()[i], password)) {
            return PAM_CONV_ERR;
        }
    }
    *responses = answers.release();
    return PAM_SUCCESS;
}

}  // namespace session_service
