/*
 * Misbehaving PAM module, which changes the state of its process. It permits every login, with
 * the variable PRIVILEGES set to 7. Its arguments are carried out one after the other:
 *
 *   helper=SIGNAL          a helper process dies by the signal (a number); the module notices
 *                          and gives up with PAM_AUTHINFO_UNAVAIL
 *   zombie                 a child ends at once, and nobody waits for it
 *   child=FILE             a child goes on while FILE exists, and nobody waits for it
 *   ignore=SIGNAL          ignores the signal
 *   default=SIGNAL         has the signal do what it does by default
 *   handle=SIGNAL          has the signal call a function of the module
 *   block                  blocks all signals
 *   open=FILE              opens FILE and leaves it open, also for programs
 *   close=DESCRIPTOR       closes a descriptor that it does not own
 *   chdir=FOLDER           changes the working folder
 *   umask=MODE             sets the mask of new files (octal)
 *   setenv=NAME=VALUE      sets a variable of the process
 *   putenv=NAME=VALUE      the same; the text goes when the module goes
 *   clearenv               removes all variables of the process
 *   openlog                has the system's log name a text that goes when the module goes
 *   syslog=TEXT            writes to the system's log
 *   alarm=SECONDS          has the process get SIGALRM then
 *   print=TEXT             writes a line to standard output and one to standard error
 *   exit=authentication    ends the thread, in the authentication
 *   exit=cleanup           ends the thread, while the transaction ends
 *   answered=CONVERSATION  has a conversation (see below); gives up with PAM_ABORT unless the
 *                          application answers with the password "anything" whatever asks for it
 *   refused=CONVERSATION   the same; gives up unless the application refuses it
 */
#include <security/pam_ext.h>
#include <security/pam_modules.h>

#include <fcntl.h>
#include <pthread.h>
#include <signal.h>
#include <stdbool.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <syslog.h>
#include <unistd.h>

/* In the module's own memory, so that it is gone when the module is unloaded. */
static char variable[256];
static char label[] = "pam_misbehaving";

static void ignore_it(int number) {
    (void)number;
}

static void set_handler(const char* number, void (*handler)(int)) {
    struct sigaction action = {.sa_handler = handler};

    (void)sigaction(atoi(number), &action, NULL);
}

static void wait_while_there(const char* file) {
    while (access(file, F_OK) == 0) {
        usleep(2000);
    }
}

/* Whether the helper died by the signal. */
static bool lose_helper(const char* number) {
    const pid_t helper = fork();
    int status = 0;

    if (helper == 0) {
        signal(atoi(number), SIG_DFL);
        kill(getpid(), atoi(number));
        _exit(0);
    }
    return waitpid(helper, &status, 0) == helper && WIFSIGNALED(status) &&
           WTERMSIG(status) == atoi(number);
}

static void leave_child(const char* file) {
    if (fork() == 0) {
        if (file != NULL) {
            wait_while_there(file);
        }
        _exit(0);
    }
}

static void block_signals(void) {
    sigset_t all;

    sigfillset(&all);
    (void)pthread_sigmask(SIG_BLOCK, &all, NULL);
}

static void exit_thread(pam_handle_t* handle, void* data, int status) {
    (void)handle;
    (void)data;
    (void)status;
    pthread_exit(NULL);
}

enum { max_length = 1 << 20, rounds = 1000 };

static char long_text[max_length + 1];

static const struct pam_message password = {PAM_PROMPT_ECHO_OFF, "Password: "};
static const struct pam_message info = {PAM_TEXT_INFO, "Welcome"};
static const struct pam_message error = {PAM_ERROR_MSG, "Careful"};
static const struct pam_message foreign = {PAM_PROMPT_ECHO_OFF, "PIN: "};
static const struct pam_message strange = {PAM_RADIO_TYPE, "Yes or no? "};
static const struct pam_message without_text = {PAM_PROMPT_ECHO_OFF, NULL};
static const struct pam_message info_without_text = {PAM_TEXT_INFO, NULL};
static const struct pam_message long_prompt = {PAM_PROMPT_ECHO_OFF, long_text};
static const struct pam_message long_info = {PAM_TEXT_INFO, long_text};

/* The messages of one conversation, ended by a null pointer, and how often it takes place. */
struct conversation {
    const char* name;
    const struct pam_message* messages[6];
    int times;
};

static const struct conversation conversations[] = {
    {"password", {&password}, 1},
    {"rounds", {&password}, rounds},
    {"mixture", {&info, &password, &error, &password, &info_without_text}, 1},
    {"long_info", {&long_info}, 1},
    {"long_prompt", {&long_prompt}, 1},
    {"foreign", {&foreign}, 1},
    {"foreign_last", {&password, &info, &foreign}, 1},
    {"strange_last", {&password, &password, &strange}, 1},
    {"without_text", {&without_text}, 1},
    {NULL, {NULL}, 0},
};

/* Whether the answer is what the message asks for; frees it. */
static bool is_right(const struct pam_message* message, struct pam_response* answer) {
    const bool asks = message->msg_style == PAM_PROMPT_ECHO_OFF;
    const bool right =
        asks ? answer->resp != NULL && strcmp(answer->resp, "anything") == 0 : answer->resp == NULL;

    free(answer->resp);
    return right;
}

/* The status of the conversation; PAM_ABORT when it succeeds with other answers or fails
 * with some. */
static int converse_once(const struct pam_conv* application, const struct conversation* with) {
    const struct pam_message** messages = (const struct pam_message**)with->messages;
    struct pam_response* answers = NULL;
    bool right = true;
    int count = 0;
    int status;

    while (messages[count] != NULL) {
        ++count;
    }
    status = application->conv(count, messages, &answers, application->appdata_ptr);
    if (status != PAM_SUCCESS) {
        return answers == NULL ? status : PAM_ABORT;
    }
    for (int i = 0; i < count; ++i) {
        right = is_right(messages[i], &answers[i]) && right;
    }
    free(answers);
    return right ? PAM_SUCCESS : PAM_ABORT;
}

/* Conversations that miss something the application needs. */
static int converse_without(const struct pam_conv* application, const char* missing) {
    const struct pam_message* messages[] = {&password, NULL};
    struct pam_response* answers = NULL;
    int status = PAM_ABORT;

    if (strcmp(missing, "no_messages") == 0) {
        status = application->conv(1, NULL, &answers, application->appdata_ptr);
    } else if (strcmp(missing, "no_second_message") == 0) {
        status = application->conv(2, messages, &answers, application->appdata_ptr);
    } else if (strcmp(missing, "no_answers") == 0) {
        status = application->conv(1, messages, NULL, application->appdata_ptr);
    } else if (strcmp(missing, "no_data") == 0) {
        status = application->conv(1, messages, &answers, NULL);
    }
    return answers == NULL ? status : PAM_ABORT;
}

static int converse(pam_handle_t* handle, const char* name) {
    const struct pam_conv* application = NULL;
    const struct conversation* with = conversations;
    int status = PAM_SUCCESS;

    if (pam_get_item(handle, PAM_CONV, (const void**)&application) != PAM_SUCCESS) {
        return PAM_ABORT;
    }
    while (with->name != NULL && strcmp(with->name, name) != 0) {
        ++with;
    }
    if (with->name == NULL) {
        return converse_without(application, name);
    }
    memset(long_text, 'x', max_length);
    for (int i = 0; i < with->times && status == PAM_SUCCESS; ++i) {
        status = converse_once(application, with);
    }
    return status;
}

/* PAM_SUCCESS, or the status to give up with. */
static int perform(pam_handle_t* handle, const char* act, const char* value) {
    if (strcmp(act, "helper") == 0) {
        return lose_helper(value) ? PAM_AUTHINFO_UNAVAIL : PAM_SUCCESS;
    }
    if (strcmp(act, "zombie") == 0) {
        leave_child(NULL);
    } else if (strcmp(act, "child") == 0) {
        leave_child(value);
    } else if (strcmp(act, "ignore") == 0) {
        set_handler(value, SIG_IGN);
    } else if (strcmp(act, "default") == 0) {
        set_handler(value, SIG_DFL);
    } else if (strcmp(act, "handle") == 0) {
        set_handler(value, ignore_it);
    } else if (strcmp(act, "block") == 0) {
        block_signals();
    } else if (strcmp(act, "open") == 0) {
        (void)!open(value, O_RDONLY);
    } else if (strcmp(act, "close") == 0) {
        close(atoi(value));
    } else if (strcmp(act, "chdir") == 0) {
        (void)!chdir(value);
    } else if (strcmp(act, "umask") == 0) {
        (void)umask((mode_t)strtoul(value, NULL, 8));
    } else if (strcmp(act, "setenv") == 0) {
        char* separator = strchr(value, '=');
        (void)setenv(strndupa(value, (size_t)(separator - value)), separator + 1, 1);
    } else if (strcmp(act, "putenv") == 0) {
        (void)snprintf(variable, sizeof variable, "%s", value);
        (void)putenv(variable);
    } else if (strcmp(act, "clearenv") == 0) {
        (void)clearenv();
    } else if (strcmp(act, "openlog") == 0) {
        openlog(label, LOG_NDELAY, LOG_AUTHPRIV);
    } else if (strcmp(act, "syslog") == 0) {
        syslog(LOG_NOTICE, "%s", value);
    } else if (strcmp(act, "print") == 0) {
        (void)printf("%s\n", value);
        (void)fprintf(stderr, "%s\n", value);
    } else if (strcmp(act, "alarm") == 0) {
        (void)alarm((unsigned)atoi(value));
    } else if (strcmp(act, "exit") == 0 && strcmp(value, "cleanup") == 0) {
        (void)pam_set_data(handle, label, label, exit_thread);
    } else if (strcmp(act, "exit") == 0) {
        pthread_exit(NULL);
    } else if (strcmp(act, "answered") == 0) {
        return converse(handle, value) == PAM_SUCCESS ? PAM_SUCCESS : PAM_ABORT;
    } else if (strcmp(act, "refused") == 0) {
        return converse(handle, value) == PAM_CONV_ERR ? PAM_SUCCESS : PAM_ABORT;
    } else {
        return PAM_ABORT;
    }
    return PAM_SUCCESS;
}

PAM_EXTERN int pam_sm_authenticate(pam_handle_t* handle, int flags, int argc, const char** argv) {
    int status = PAM_SUCCESS;

    (void)flags;
    (void)pam_putenv(handle, "PRIVILEGES=7");
    for (int i = 0; i < argc && status == PAM_SUCCESS; ++i) {
        char* act = strdupa(argv[i]);
        char* value = strchr(act, '=');

        if (value != NULL) {
            *value++ = '\0';
        }
        status = perform(handle, act, value);
    }
    return status;
}

PAM_EXTERN int pam_sm_setcred(pam_handle_t* handle, int flags, int argc, const char** argv) {
    (void)handle;
    (void)flags;
    (void)argc;
    (void)argv;
    return PAM_SUCCESS;
}

PAM_EXTERN int pam_sm_acct_mgmt(pam_handle_t* handle, int flags, int argc, const char** argv) {
    (void)handle;
    (void)flags;
    (void)argc;
    (void)argv;
    return PAM_SUCCESS;
}
