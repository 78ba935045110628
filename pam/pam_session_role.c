/*
 * PAM module for controllers with local accounts: passes the user's role to the application
 * in variables of the PAM environment. See README.md for its arguments.
 *
 * It never returns PAM_SUCCESS, so that it can refuse a login but not grant one.
 */
#include <security/pam_ext.h>
#include <security/pam_modules.h>
#include <security/pam_modutil.h>

#include <grp.h>
#include <pwd.h>
#include <stdbool.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <syslog.h>

static const char default_attribute[] = "aci_group";

/* The rest of the text after the prefix; null if it does not begin with that. */
static const char* skip_prefix(const char* text, const char* prefix) {
    const size_t length = strlen(prefix);
    return strncmp(text, prefix, length) == 0 ? text + length : NULL;
}

/* Whether the text begins with a name, which is not empty, and the separator. */
static bool begins_with_name(const char* text, const char* separator) {
    const size_t length = strcspn(text, separator);
    return length > 0 && text[length] != '\0';
}

/* Whether the module understands the argument; logs an error if not. */
static bool is_usable(pam_handle_t* handle, const char* argument) {
    const char* value;
    bool usable = false;

    if ((value = skip_prefix(argument, "attribute=")) != NULL) {
        usable = *value != '\0' && strchr(value, '=') == NULL;
    } else if ((value = skip_prefix(argument, "role=")) != NULL) {
        usable = begins_with_name(value, ":");
    } else if ((value = skip_prefix(argument, "set=")) != NULL) {
        usable = begins_with_name(value, "=");
    }
    if (!usable) {
        pam_syslog(handle, LOG_ERR, "cannot use the argument \"%s\"", argument);
    }
    return usable;
}

/* Sets the variable in the PAM environment to the value followed by the suffix. */
static int set_variable(pam_handle_t* handle, const char* name, const char* value,
                        const char* suffix) {
    const size_t size = strlen(name) + strlen(value) + strlen(suffix) + sizeof "=";
    char* text = malloc(size);
    int status = PAM_BUF_ERR;

    if (text != NULL) {
        (void)snprintf(text, size, "%s=%s%s", name, value, suffix);
        status = pam_putenv(handle, text);
    }
    free(text);
    if (status != PAM_SUCCESS) {
        pam_syslog(handle, LOG_ERR, "cannot set %s: %s", name, pam_strerror(handle, status));
    }
    return status;
}

/* Sets *member to whether the user is in the group of the role, which is GROUP:VALUE. */
static int check_membership(pam_handle_t* handle, const char* user, const char* role,
                            bool* member) {
    char* group = strndup(role, strcspn(role, ":"));

    if (group == NULL) {
        return PAM_BUF_ERR;
    }
    *member = pam_modutil_user_in_group_nam_nam(handle, user, group) == 1;
    free(group);
    return PAM_SUCCESS;
}

/* Sets the variable to the value of the first role that the user has; without any role argument, to
 * the name of the user's primary group. */
static int set_role(pam_handle_t* handle, const char* user, const char* attribute, int argc,
                    const char** argv) {
    bool roles_given = false;

    for (int i = 0; i < argc; ++i) {
        const char* role = skip_prefix(argv[i], "role=");
        bool member = false;
        int status;
        if (role == NULL) {
            continue;
        }
        roles_given = true;
        status = check_membership(handle, user, role, &member);
        if (status != PAM_SUCCESS) {
            return status;
        }
        if (member) {
            return set_variable(handle, attribute, strchr(role, ':') + 1, "");
        }
    }
    if (!roles_given) {
        const struct passwd* account = pam_modutil_getpwnam(handle, user);
        const struct group* group =
            account == NULL ? NULL : pam_modutil_getgrgid(handle, account->pw_gid);
        if (group != NULL) {
            return set_variable(handle, attribute, group->gr_name, ";");
        }
    }
    return PAM_SUCCESS;
}

static int set_variables(pam_handle_t* handle, int argc, const char** argv) {
    const char* attribute = default_attribute;
    const char* user = NULL;
    int status;

    for (int i = 0; i < argc; ++i) {
        const char* name;
        if (!is_usable(handle, argv[i])) {
            return PAM_SERVICE_ERR;
        }
        if ((name = skip_prefix(argv[i], "attribute=")) != NULL) {
            attribute = name;
        }
    }
    status = pam_get_user(handle, &user, NULL);
    if (status == PAM_SUCCESS) {
        status = set_role(handle, user, attribute, argc, argv);
    }
    for (int i = 0; i < argc && status == PAM_SUCCESS; ++i) {
        const char* variable = skip_prefix(argv[i], "set=");
        if (variable != NULL) {
            status = pam_putenv(handle, variable);
        }
    }
    return status == PAM_SUCCESS ? PAM_IGNORE : status;
}

PAM_EXTERN int pam_sm_authenticate(pam_handle_t* handle, int flags, int argc, const char** argv) {
    (void)flags;
    return set_variables(handle, argc, argv);
}

PAM_EXTERN int pam_sm_setcred(pam_handle_t* handle, int flags, int argc, const char** argv) {
    (void)handle;
    (void)flags;
    (void)argc;
    (void)argv;
    return PAM_IGNORE;
}

PAM_EXTERN int pam_sm_acct_mgmt(pam_handle_t* handle, int flags, int argc, const char** argv) {
    (void)flags;
    return set_variables(handle, argc, argv);
}
