// Calls PAM as other programs than the daemon do, inside the private root:
//
//   pam_probe SERVICE USER {authenticate|credentials}
//
// With an empty USER the modules have to ask for the name, and get no answer. Prints the status
// that the operation returns.
#include <security/pam_appl.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>

namespace {

int answerNothing(int, const pam_message**, pam_response**, void*) {
    return PAM_CONV_ERR;
}

int perform(pam_handle_t* handle, const char* operation) {
    return std::strcmp(operation, "authenticate") == 0 ? pam_authenticate(handle, 0)
                                                       : pam_setcred(handle, PAM_ESTABLISH_CRED);
}

}  // namespace

int main(int argc, char** argv) {
    const pam_conv conversation{answerNothing, nullptr};
    pam_handle_t* handle = nullptr;
    if (argc != 4 || pam_start(argv[1], argv[2][0] == '\0' ? nullptr : argv[2], &conversation,
                               &handle) != PAM_SUCCESS) {
        return EXIT_FAILURE;
    }
    std::printf("%d\n", perform(handle, argv[3]));
    return pam_end(handle, PAM_SUCCESS) == PAM_SUCCESS ? EXIT_SUCCESS : EXIT_FAILURE;
}
