// The application's side of a PAM conversation.
#pragma once

struct pam_message;
struct pam_response;

namespace session_service {

// The conversation callback; `applicationData` is the password as zero-terminated text.
// Answers the hidden prompt "Password: " with the password, visible prompts with a line of
// standard input, and passes messages on to standard error and standard output. Any other
// hidden prompt, any other style and a missing input line fail the whole conversation:
// then every answer is wiped and freed. *responses is null unless it succeeds.
// Returns PAM_SUCCESS, PAM_BUF_ERR or PAM_CONV_ERR. On success the module frees the
// answers with free.
int pamConversation(int messageCount, const pam_message** messages, pam_response** responses,
                    void* applicationData);

}  // namespace session_service
