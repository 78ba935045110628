/*
 * Scripted PAM module, for what real modules seldom do. Without arguments it permits
 * everything and asks nothing. Arguments:
 *
 *   auth=STATUS acct=STATUS   what the entry point returns, by name or number
 *   password=TEXT             asks for the password; another one gives PAM_AUTH_ERR
 *   prompt=TEXT               asks with this prompt instead of "Password: "
 *   style=STYLE               asks in this style: echo_off (the default), echo_on, error,
 *                             info or a number
 *   line_feed                 asks with a line feed after the prompt
 *   messages=COUNT            asks that many times in one conversation, at most 64
 *   env=NAME=VALUE            sets a variable of the PAM environment
 *   record=FILE               appends what the entry point was given and what the
 *                             conversation answered: fields NAME=VALUE, a zero byte after
 *                             each, an empty field after the last
 *   block=FILE                after recording, waits while FILE exists
 *   descriptors=FILE          has a helper program list its open descriptors into FILE
 */
#include <security/pam_ext.h>
#include <security/pam_modules.h>
#include <security/pam_modutil.h>

#include <fcntl.h>
#include <stdbool.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <strings.h>
#include <sys/wait.h>
#include <unistd.h>

struct named {
    const char* name;
    int value;
};

static const struct named statuses[] = {
    {"PAM_SUCCESS", PAM_SUCCESS},
    {"PAM_OPEN_ERR", PAM_OPEN_ERR},
    {"PAM_SYSTEM_ERR", PAM_SYSTEM_ERR},
    {"PAM_BUF_ERR", PAM_BUF_ERR},
    {"PAM_PERM_DENIED", PAM_PERM_DENIED},
    {"PAM_AUTH_ERR", PAM_AUTH_ERR},
    {"PAM_CRED_INSUFFICIENT", PAM_CRED_INSUFFICIENT},
    {"PAM_AUTHINFO_UNAVAIL", PAM_AUTHINFO_UNAVAIL},
    {"PAM_USER_UNKNOWN", PAM_USER_UNKNOWN},
    {"PAM_MAXTRIES", PAM_MAXTRIES},
    {"PAM_NEW_AUTHTOK_REQD", PAM_NEW_AUTHTOK_REQD},
    {"PAM_ACCT_EXPIRED", PAM_ACCT_EXPIRED},
    {"PAM_AUTHTOK_EXPIRED", PAM_AUTHTOK_EXPIRED},
    {"PAM_IGNORE", PAM_IGNORE},
    {NULL, 0},
};

static const struct named styles[] = {
    {"echo_off", PAM_PROMPT_ECHO_OFF},
    {"echo_on", PAM_PROMPT_ECHO_ON},
    {"error", PAM_ERROR_MSG},
    {"info", PAM_TEXT_INFO},
    {NULL, 0},
};

static int number_of(const struct named* table, const char* text) {
    for (; table->name != NULL; ++table) {
        if (strcmp(table->name, text) == 0) {
            return table->value;
        }
    }
    return (int)strtol(text, NULL, 10);
}

/* The value of the last argument NAME=VALUE, or `otherwise`. */
static const char* argument(int argc, const char** argv, const char* name, const char* otherwise) {
    const size_t length = strlen(name);

    for (int i = argc - 1; i >= 0; --i) {
        if (strncmp(argv[i], name, length) == 0 && argv[i][length] == '=') {
            return argv[i] + length + 1;
        }
    }
    return otherwise;
}

struct conversation {
    int status;
    int count;
    struct pam_response* answers; /* null when it failed */
};

/* The prompt, to be freed; null without memory. */
static char* prompt_of(int argc, const char** argv) {
    const char* text = argument(argc, argv, "prompt", "Password: ");
    char* prompt = malloc(strlen(text) + sizeof "\n");
    bool line_feed = false;

    for (int i = 0; i < argc; ++i) {
        line_feed = line_feed || strcmp(argv[i], "line_feed") == 0;
    }
    if (prompt != NULL) {
        (void)sprintf(prompt, "%s%s", text, line_feed ? "\n" : "");
    }
    return prompt;
}

static struct conversation converse(pam_handle_t* handle, int argc, const char** argv) {
    struct conversation result = {PAM_CONV_ERR, 0, NULL};
    char* prompt = prompt_of(argc, argv);
    const struct pam_message message = {
        .msg_style = number_of(styles, argument(argc, argv, "style", "echo_off")),
        .msg = prompt,
    };
    const int count = number_of(styles, argument(argc, argv, "messages", "1"));
    const struct pam_message* messages[64];
    const struct pam_conv* application = NULL;

    for (size_t i = 0; i < sizeof messages / sizeof messages[0]; ++i) {
        messages[i] = &message;
    }
    if (pam_get_item(handle, PAM_CONV, (const void**)&application) == PAM_SUCCESS) {
        result.status =
            application->conv(count, messages, &result.answers, application->appdata_ptr);
        result.count = result.answers == NULL ? 0 : count;
    }
    free(prompt);
    return result;
}

static void record(pam_handle_t* handle, const char* file, const char* entry, int flags,
                   const struct conversation* asked) {
    const void* user = NULL;
    const void* host = NULL;
    const void* service = NULL;
    FILE* out = fopen(file, "ae");

    if (out == NULL) {
        return;
    }
    (void)pam_get_item(handle, PAM_USER, &user);
    (void)pam_get_item(handle, PAM_RHOST, &host);
    (void)pam_get_item(handle, PAM_SERVICE, &service);
    fprintf(out, "entry=%s%cuser=%s%crhost=%s%cservice=%s%cflags=%d%c", entry, 0,
            user == NULL ? "" : (const char*)user, 0, host == NULL ? "" : (const char*)host, 0,
            service == NULL ? "" : (const char*)service, 0, flags, 0);
    if (asked != NULL) {
        fprintf(out, "conversation=%d%canswers=%s%c", asked->status, 0,
                asked->answers == NULL ? "null" : "given", 0);
        for (int i = 0; i < asked->count; ++i) {
            const char* text = asked->answers[i].resp;
            fprintf(out, "answer%d=%s%c", i, text == NULL ? "" : text, 0);
        }
    }
    fputc('\0', out);
    (void)fclose(out);
}

static void list_descriptors(const char* file) {
    const pid_t helper = fork();

    if (helper == 0) {
        const int out = open(file, O_WRONLY | O_CREAT | O_TRUNC, 0600);
        if (out >= 0 && dup2(out, STDOUT_FILENO) >= 0) {
            close(out);
            execl("/bin/ls", "ls", "-l", "/proc/self/fd", (char*)NULL);
        }
        _exit(1);
    }
    if (helper > 0) {
        (void)waitpid(helper, NULL, 0);
    }
}

static int perform(pam_handle_t* handle, const char* entry, int flags, int argc, const char** argv,
                   const struct conversation* asked) {
    const char* file;

    for (int i = 0; i < argc; ++i) {
        if (strncmp(argv[i], "env=", 4) == 0) {
            (void)pam_putenv(handle, argv[i] + 4);
        }
    }
    if ((file = argument(argc, argv, "record", NULL)) != NULL) {
        record(handle, file, entry, flags, asked);
    }
    if ((file = argument(argc, argv, "block", NULL)) != NULL) {
        while (access(file, F_OK) == 0) {
            usleep(2000);
        }
    }
    if ((file = argument(argc, argv, "descriptors", NULL)) != NULL) {
        list_descriptors(file);
    }
    return number_of(statuses, argument(argc, argv, entry, "PAM_SUCCESS"));
}

PAM_EXTERN int pam_sm_authenticate(pam_handle_t* handle, int flags, int argc, const char** argv) {
    static const char* const asking[] = {"password", "prompt", "style", "messages"};
    const char* password = argument(argc, argv, "password", NULL);
    struct conversation asked = {PAM_SUCCESS, 0, NULL};
    bool asks = false;
    int status;

    for (size_t i = 0; i < sizeof asking / sizeof *asking; ++i) {
        asks = asks || argument(argc, argv, asking[i], NULL) != NULL;
    }
    if (asks) {
        asked = converse(handle, argc, argv);
    }
    status = perform(handle, "auth", flags, argc, argv, asks ? &asked : NULL);
    if (asked.status != PAM_SUCCESS) {
        status = asked.status;
    } else if (password != NULL && (asked.count == 0 || asked.answers[0].resp == NULL ||
                                    strcmp(asked.answers[0].resp, password) != 0)) {
        status = PAM_AUTH_ERR;
    }
    for (int i = 0; i < asked.count; ++i) {
        char* answer = asked.answers[i].resp;
        if (answer != NULL) {
            explicit_bzero(answer, strlen(answer));
        }
        free(answer);
    }
    free(asked.answers);
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
    return perform(handle, "acct", flags, argc, argv, NULL);
}
