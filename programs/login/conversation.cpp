#include "programs/login/conversation.h"

#include <cstdlib>
#include <cstring>

#include "programs/login/prompt.h"

static void drop(pam_response *answers, int count)
{
    for (int i = 0; i < count; i++) {
        if (answers[i].resp != nullptr) {
            explicit_bzero(answers[i].resp, strlen(answers[i].resp));
            free(answers[i].resp);
        }
    }
    free(answers);
}

static char *ask(const pam_message *message)
{
    char answer[PAM_MAX_RESP_SIZE];
    char *copy = nullptr;

    if (prompt_ask(message->msg, message->msg_style == PAM_PROMPT_ECHO_ON,
                   answer, sizeof answer) == prompt_result::ANSWERED) {
        copy = strdup(answer);
    }
    explicit_bzero(answer, sizeof answer);
    return copy;
}

static bool take(const pam_message *message, pam_response *answer)
{
    switch (message->msg_style) {
    case PAM_PROMPT_ECHO_ON:
    case PAM_PROMPT_ECHO_OFF:
        answer->resp = ask(message);
        return answer->resp != nullptr;
    case PAM_TEXT_INFO:
    case PAM_ERROR_MSG:
        prompt_say(message->msg);
        return true;
    default:
        return false;
    }
}

int login_converse(int count, const pam_message **messages,
                   pam_response **answers, void *unused)
{
    (void)unused;
    if (count <= 0 || count > PAM_MAX_NUM_MSG) {
        return PAM_CONV_ERR;
    }
    pam_response *taken = static_cast<pam_response *>(
        calloc(static_cast<std::size_t>(count), sizeof *taken));
    if (taken == nullptr) {
        return PAM_BUF_ERR;
    }
    for (int i = 0; i < count; i++) {
        if (!take(messages[i], &taken[i])) {
            drop(taken, count);
            return PAM_CONV_ERR;
        }
    }
    *answers = taken;
    return PAM_SUCCESS;
}
