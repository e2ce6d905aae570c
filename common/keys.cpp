// The names a line's values may have. The order is part of the interface to
// the device's other programs: it is the order in which names are compared.
#include "common/keys.h"

inline namespace TTYLINE_FACE
{

// clang-format off
const char *const tty_envs[TTY_ENV_COUNT] = {
    "COLUMNS", "HOME", "LINES", "LOGNAME", "RELOAD_LOGNAME", "PATH", "PWD",
    "SHELL", "TERM", "TMPDIR", "TZ", "TTYNUM", "TTYPID", "TTYTYPE", "PROTOCOL",
    "TTYDEV", "SPEED", "PRILEVEL", "SESSIONID", "PEERNAME", "RELOAD_PEERNAME",
    "SOCKADDR", "AUTOCMD", "TIMEOUT", "PSWD_STR", "PSWD_ENC", "SECRET_STR",
    "LOGIN_TYPE", "AUTHEN_LOGIN", "AUTHOR_EXEC", "AUTHOR_CMD", "AUTHOR_CMD1",
    "AUTHOR_CMD2", "AUTHOR_CMD3", "AUTHOR_CMD4", "AUTHOR_CMD5", "AUTHOR_CMD6",
    "AUTHOR_CMD7", "AUTHOR_CMD8", "AUTHOR_CMD9", "AUTHOR_CMDA", "AUTHOR_CMDB",
    "AUTHOR_CMDC", "AUTHOR_CMDD", "AUTHOR_CMDE", "AUTHOR_CMDF", "ACCT_EXEC",
    "ACCT_CMD", "ACCT_CMD1", "ACCT_CMD2", "ACCT_CMD3", "ACCT_CMD4", "ACCT_CMD5",
    "ACCT_CMD6", "ACCT_CMD7", "ACCT_CMD8", "ACCT_CMD9", "ACCT_CMDA",
    "ACCT_CMDB", "ACCT_CMDC", "ACCT_CMDD", "ACCT_CMDE", "ACCT_CMDF",
    "BANR_LOGIN", "BANR_EXEC", "BANR_TOUT", "DATA_IN", "DATA_OUT", "MONITOR",
    "ADDRTYPE", "ESCAPECHAR", "DISCONCHAR", "ACL4NAME", "ACL4ID", "ACL6NAME",
    "ACL4INNAME", "ACL4INID", "ACL6INNAME", "SESSION_TIMEOUT", "SESSION_OUTPUT",
    "EXEC_TIMEOUT", "STATUS", "LOGSUCC", "PSWDCHG", "VKD", "MTYPE", "CONN_TYPE",
    "USRNO", "VKD_SWITCH", "RL_TIMEOUT", "IDLE", "COM_CHECKED",
    "ENABLE_CHECKED", "EXECNUM",
};
// clang-format on

int g_tty_env_size = TTY_ENV_COUNT;

} // namespace TTYLINE_FACE
