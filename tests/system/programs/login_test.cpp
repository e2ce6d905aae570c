// The login room as its users meet it: real PAM modules, a machine of the
// test's own with two users, and the terminal in between.
#include <signal.h>
#include <unistd.h>

#include <filesystem>
#include <fstream>

#include <ttyline/tty.h>

#include "programs/login/room.h"
#include "programs/login/waiting.h"
#include "tests/system/kit/kit_daemon.h"
#include "tests/system/programs/login_machine.h"

namespace fs = std::filesystem;

static const char PASSWORD[] = "open sesame\n";
static const char PROMPT[] = "\r\nalice> ";
constexpr int LINE = 258;

class LoginRoom : public KitTest
{
  protected:
    void SetUp() override
    {
        if (!enter_login_machine()) {
            GTEST_SKIP() << "only root has a machine of its own";
        }
        KitTest::SetUp();
        mounted = true;
        unix_path = path("/login");
        service = service_on(unix_path);
        service.function = login_session;
        service.context = &room;
    }

    void TearDown() override
    {
        close(client);
        if (mounted) {
            KitTest::TearDown();
        }
    }

    void call()
    {
        client = client_of(service);
        ASSERT_GE(client, 0);
    }
    // Up to the first question; what comes before it.
    std::string begin()
    {
        start({&service});
        call();
        return until("login: ");
    }

    // What comes until the text ends so.
    std::string until(const std::string &wanted) const
    {
        return read_until(client, wanted);
    }
    void say(const std::string &text) const
    {
        ASSERT_TRUE(write_all(client, text));
    }
    // Answers both questions.
    void answer(const std::string &name, const std::string &password) const
    {
        say(name + "\n");
        until("Password: ");
        say(password);
    }
    // Up to the next question, if there is one.
    bool refused() const
    {
        return until("login: ").find("Login incorrect\r\n") !=
               std::string::npos;
    }
    void log_in()
    {
        begin();
        answer("alice", PASSWORD);
        const std::string shown = until(PROMPT);
        ASSERT_EQ(shown.substr(shown.size() - sizeof PROMPT + 1), PROMPT);
    }
    // What a command of the shell prints.
    std::string run(const std::string &command) const
    {
        say(command + "\n");
        const std::string shown = until(PROMPT);
        const size_t echo = shown.find("\r\n") + 2;
        if (shown.size() < echo + sizeof PROMPT - 3) {
            return "no prompt: " + shown;
        }
        return shown.substr(echo, shown.size() - sizeof PROMPT + 3 - echo);
    }
    bool over() const
    {
        return eventually([&] {
            return inetd->cleans() == 1;
        });
    }
    static bool noted(const std::string &text)
    {
        return eventually([&] {
            return content_of("/home/noted").find(text) != std::string::npos;
        });
    }

    login_room room = {"ttyline", nullptr, false, LOGIN_TRIES, 60, 1000};
    kit_service service = {};
    std::string unix_path;
    int client = -1;
    bool mounted = false;
};

// ---- Who comes in. ----

TEST_F(LoginRoom, user_with_the_right_password_gets_his_shell)
{
    log_in();
    EXPECT_EQ(run("id -un; id -Gn; pwd; echo $HOME $LOGNAME $SHELL"),
              "alice\r\nstaff ops\r\n/home/alice\r\n"
              "/home/alice alice /home/shell\r\n");
    EXPECT_EQ(run("stat -c '%U %G %a' $(tty)"), "alice tty 620\r\n");
    EXPECT_EQ(run("echo ${TMPDIR-none} $TERM"), "none vt100\r\n");
}

TEST_F(LoginRoom, shell_is_a_login_shell)
{
    fs::remove("/home/shell");
    fs::create_symlink("/bin/sh", "/home/shell");
    put_file("/home/alice/.profile", "PS1='alice> '\necho welcome home\n");
    begin();
    answer("alice", PASSWORD);
    EXPECT_NE(until(PROMPT).find("welcome home"), std::string::npos);
}

TEST_F(LoginRoom, shell_has_job_control_and_its_programs_hear_the_keys)
{
    log_in();
    say("cat\n");
    until("cat\r\n");
    say("here\n");
    until("here\r\nhere\r\n");
    say("\003");
    until(PROMPT);
    EXPECT_EQ(run("case $- in *m*) echo jobs ;; esac"), "jobs\r\n");
}

TEST_F(LoginRoom, program_of_the_room_runs_instead_of_the_shell)
{
    const char *program[] = {"/usr/bin/id", "-un", nullptr};
    room.program = program;
    begin();
    answer("alice", PASSWORD);
    const std::string shown = all_of(client);
    EXPECT_NE(shown.find("\r\nalice\r\n"), std::string::npos) << shown;
    EXPECT_TRUE(over());
}

TEST_F(LoginRoom, home_that_is_missing_is_told_and_replaced_by_the_root)
{
    begin();
    answer("bob", PASSWORD);
    EXPECT_NE(until("\r\nbob> ").find("/nowhere: No such file"),
              std::string::npos);
    say("pwd; exit\n");
    EXPECT_NE(all_of(client).find("\r\n/\r\n"), std::string::npos);
}

TEST_F(LoginRoom, login_is_on_the_line_and_in_the_list)
{
    log_in();
    EXPECT_TRUE(stored_has(LINE, "LOGNAME=alice"));
    EXPECT_TRUE(eventually([&] {
        return word_of(ask("sessions"), "user") == "alice";
    }));
}

// ---- Who does not. ----

TEST_F(LoginRoom, wrong_password_is_refused_and_asked_again)
{
    begin();
    answer("alice", "open barley\n");
    EXPECT_EQ(until("login: "), "\r\nLogin incorrect\r\nlogin: ");
    EXPECT_TRUE(stored_has(LINE, "LOGSUCC=0"));
    answer("alice", PASSWORD);
    until(PROMPT);
    EXPECT_TRUE(stored_has(LINE, "LOGNAME=alice"));
    EXPECT_TRUE(stored_has(LINE, "LOGSUCC=1"));
}

TEST_F(LoginRoom, password_is_not_shown)
{
    begin();
    say("alice\n");
    EXPECT_EQ(until("Password: "), "alice\r\nPassword: ");
    say(PASSWORD);
    EXPECT_EQ(until(PROMPT), PROMPT);
}

// It may be a password that was typed too early.
TEST_F(LoginRoom, name_that_nobody_has_is_asked_for_a_password_and_kept_nowhere)
{
    begin();
    answer("open sesame", "x\n");
    EXPECT_EQ(until("login: "), "\r\nLogin incorrect\r\nlogin: ");
    EXPECT_TRUE(stored_has(LINE, "LOGNAME=UNKNOWN"));
    EXPECT_EQ(log().find("sesame"), std::string::npos);
}

TEST_F(LoginRoom, names_that_do_harm_are_refused_before_anything_sees_them)
{
    put_stack(std::string("auth required pam_exec.so /home/note\n") +
              LOGIN_STACK);
    begin();
    for (const char *name : {"-froot\n", "a\tb\n", "a\033[2J\n"}) {
        say(name);
        EXPECT_TRUE(refused()) << name;
    }
    EXPECT_EQ(content_of("/home/noted"), "");
}

TEST_F(LoginRoom, name_without_end_is_refused_and_harms_nothing)
{
    begin();
    say(std::string(3000, 'a') + "\n");
    EXPECT_TRUE(refused());
    answer("alice", PASSWORD);
    until(PROMPT);
}

TEST_F(LoginRoom, password_without_end_is_refused)
{
    begin();
    answer("alice", std::string(3000, 'a') + "\n");
    EXPECT_EQ(until("login: "), "\r\nLogin incorrect\r\nlogin: ");
}

TEST_F(LoginRoom, empty_password_lets_nobody_in)
{
    begin();
    answer("carol", "\n");
    EXPECT_EQ(until("login: "), "\r\nLogin incorrect\r\nlogin: ");
}

TEST_F(LoginRoom, session_ends_after_six_failures)
{
    begin();
    for (int i = 1; i < LOGIN_TRIES; i++) {
        answer("alice", "wrong\n");
        EXPECT_TRUE(refused()) << i;
    }
    answer("alice", "wrong\n");
    EXPECT_EQ(all_of(client), "\r\nLogin incorrect\r\nToo many tries\r\n");
    EXPECT_TRUE(over());
}

TEST_F(LoginRoom, session_that_does_not_log_in_in_time_ends)
{
    room.seconds = 1;
    begin();
    EXPECT_EQ(all_of(client), "\r\nNo login in time\r\n");
    EXPECT_TRUE(over());
}

// Nothing can be printed on it then.
TEST_F(LoginRoom, time_ends_also_for_a_terminal_that_its_user_has_stopped)
{
    room.seconds = 2;
    begin();
    say("\023alice\n");
    EXPECT_TRUE(over());
}

TEST_F(LoginRoom, time_that_has_passed_ends_no_session_that_has_logged_in)
{
    room.seconds = 2;
    log_in();
    sleep(2);
    EXPECT_EQ(run("echo still here"), "still here\r\n");
}

TEST_F(LoginRoom, end_of_input_at_the_prompt_ends_the_session)
{
    begin();
    say("\004");
    EXPECT_TRUE(over());
}

TEST_F(LoginRoom, account_that_has_ended_does_not_come_in)
{
    put_users("20000:0:99999:7::1:");
    begin();
    answer("alice", PASSWORD);
    const std::string shown = until("login: ");
    EXPECT_NE(shown.find("expired"), std::string::npos) << shown;
    EXPECT_NE(shown.find("Login incorrect"), std::string::npos);
}

TEST_F(LoginRoom, session_that_a_module_does_not_open_ends)
{
    put_stack("auth required pam_unix.so\naccount required pam_unix.so\n"
              "session required pam_deny.so\n");
    begin();
    answer("alice", PASSWORD);
    EXPECT_EQ(all_of(client), "\r\nLogin incorrect\r\n");
    EXPECT_TRUE(over());
}

TEST_F(LoginRoom, without_a_service_file_nobody_comes_in)
{
    fs::remove("/etc/pam.d/ttyline");
    begin();
    say("alice\n");
    EXPECT_TRUE(refused());
}

// ---- What else modules can do. ----

TEST_F(LoginRoom, password_that_is_due_is_changed)
{
    put_users("0:0:99999:7:::");
    begin();
    answer("alice", PASSWORD);
    until("Current password: ");
    say(PASSWORD);
    until("New password: ");
    say("a longer road home\n");
    until("Retype new password: ");
    say("a longer road home\n");
    until(PROMPT);
    EXPECT_EQ(content_of("/etc/shadow").find("alice:" + LOGIN_HASH),
              std::string::npos);
}

TEST_F(LoginRoom, messages_and_variables_of_modules_reach_the_user)
{
    put_file("/etc/told", "maintenance at noon\n");
    put_file("/etc/variables", "SITE=north\n");
    put_file("/etc/security/pam_env.conf", "");
    put_stack(std::string("auth optional pam_echo.so file=/etc/told\n") +
              LOGIN_STACK +
              "session required pam_env.so envfile=/etc/variables\n");
    begin();
    say("alice\n");
    EXPECT_NE(until("Password: ").find("maintenance at noon\r\n"),
              std::string::npos);
    say(PASSWORD);
    until(PROMPT);
    EXPECT_EQ(run("echo $SITE"), "north\r\n");
}

TEST_F(LoginRoom, modules_learn_the_address_of_a_network_peer)
{
    service.path = nullptr;
    service.protocol = 4;
    service.port = free_port(AF_INET);
    service.families = KIT_IPV4;
    log_in();
    EXPECT_TRUE(noted("open_session alice 127.0.0.1\n"));
}

TEST_F(LoginRoom, banners_of_the_line_stand_before_and_after_the_login)
{
    ASSERT_EQ(tty_setenv(LINE, "BANR_LOGIN", "keep\\nout"), 0);
    ASSERT_EQ(tty_setenv(LINE, "BANR_EXEC", "welcome"), 0);
    EXPECT_EQ(begin(), "keep\r\nout\r\nlogin: ");
    say("alice\n");
    until("Password: ");
    say(PASSWORD);
    EXPECT_NE(until(PROMPT).find("\r\nwelcome\r\n"), std::string::npos);
}

// ---- How it ends. ----

TEST_F(LoginRoom, session_of_the_modules_ends_with_the_shell)
{
    log_in();
    EXPECT_TRUE(noted("open_session alice \n"));
    EXPECT_EQ(content_of("/home/noted").find("close"), std::string::npos);
    say("exit 3\n");
    EXPECT_TRUE(over());
    EXPECT_TRUE(noted("close_session alice \n"));
}

// What runs in the foreground hears of it from the system, the shell behind it
// from the room.
TEST_F(LoginRoom, client_that_leaves_hangs_the_shell_up_behind_its_program)
{
    log_in();
    run("exec bash --norc --noprofile --noediting -i");
    run("HISTFILE=/home/alice/history");
    say("echo on; sleep 600\n");
    until("\r\non\r\n");
    close(client);
    client = -1;
    EXPECT_TRUE(over());
    EXPECT_NE(content_of("/home/alice/history").find("sleep 600"),
              std::string::npos);
    EXPECT_TRUE(noted("close_session alice \n"));
}

TEST_F(LoginRoom, shell_that_ignores_the_hang_up_is_killed_and_closed)
{
    log_in();
    run("trap '' HUP");
    const pid_t shell = std::stoi(run("echo $$"));
    close(client);
    client = -1;
    EXPECT_TRUE(over());
    EXPECT_FALSE(process_runs(shell));
    EXPECT_TRUE(noted("close_session alice \n"));
}

// Whoever looks for him in the group that he was given finds nobody.
TEST_F(LoginRoom, program_that_has_left_its_group_is_killed_and_closed_as_well)
{
    log_in();
    say("exec perl -e '$SIG{HUP} = \"IGNORE\"; $| = 1; "
        "if (!($p = fork)) { setpgrp; sleep 1000 } "
        "select undef, undef, undef, 0.01 while getpgrp($p) != $p; "
        "setpgrp 0, $p; print \"<$$>\\n\"; sleep 1000'\n");
    const std::string shown = until(">\r\n");
    const size_t at = shown.rfind('<');
    ASSERT_NE(at, std::string::npos) << shown;
    const pid_t program = std::stoi(shown.substr(at + 1));
    close(client);
    client = -1;
    EXPECT_TRUE(over());
    EXPECT_FALSE(process_runs(program));
    EXPECT_TRUE(noted("close_session alice \n"));
}

TEST_F(LoginRoom, records_show_who_is_logged_in)
{
    put_file("/run/utmp", "");
    put_file("/var/log/wtmp", "");
    room.records = true;
    log_in();
    EXPECT_EQ(run("who | cut -d' ' -f1"), "alice\r\n");
    say("exit\n");
    EXPECT_TRUE(over());
    client = -1;
    FILE *last = popen("who /run/utmp | wc -l; who /var/log/wtmp | wc -l", "r");
    ASSERT_NE(last, nullptr);
    char counts[32] = {};
    EXPECT_GT(fread(counts, 1, sizeof counts - 1, last), 0u);
    pclose(last);
    EXPECT_STREQ(counts, "0\n1\n");
}

// ---- Without root. ----

class LoginAsUser : public LoginRoom
{
  protected:
    void SetUp() override
    {
        LoginRoom::SetUp();
        if (!mounted) {
            return;
        }
        inetd.reset();
        inetd = std::make_unique<AnsweringInetd>();
        beforehand = [] {
            if (setgid(LOGIN_ALICE) != 0 || setuid(LOGIN_ALICE) != 0) {
                _exit(96);
            }
        };
        for (const auto &entry : fs::recursive_directory_iterator(root_)) {
            ASSERT_EQ(chown(entry.path().c_str(), LOGIN_ALICE, LOGIN_ALICE), 0);
        }
        ASSERT_EQ(chown(root_.c_str(), LOGIN_ALICE, LOGIN_ALICE), 0);
    }
};

TEST_F(LoginAsUser, only_the_daemons_own_user_logs_in)
{
    EXPECT_EQ(begin(), "This service does not run as root: only its own user "
                       "can log in.\r\nlogin: ");
    say("bob\n");
    EXPECT_TRUE(refused());
    answer("alice", PASSWORD);
    until(PROMPT);
    EXPECT_EQ(run("id -un"), "alice\r\n");
}

// ---- Crowds. ----

TEST_F(LoginRoom, fifth_of_a_peer_that_does_not_log_in_is_refused)
{
    service.admit = waiting_admit;
    start({&service});
    std::vector<int> waiting;
    for (unsigned i = 0; i < WAITING_USUAL.most_per_peer; i++) {
        waiting.push_back(client_of(service));
        EXPECT_EQ(read_until(waiting.back(), "login: "), "login: ");
    }
    call();
    EXPECT_EQ(all_of(client),
              "ttyline: too many are logging in, try again later\r\n");
    // Whoever logs in waits no longer.
    ASSERT_TRUE(write_all(waiting[0], "alice\n"));
    read_until(waiting[0], "Password: ");
    ASSERT_TRUE(write_all(waiting[0], PASSWORD));
    read_until(waiting[0], PROMPT);
    close(client);
    call();
    EXPECT_EQ(until("login: "), "login: ");
    for (const int each : waiting) {
        close(each);
    }
}
