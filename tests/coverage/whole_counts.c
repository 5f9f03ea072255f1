/* In builds that count lines: a process that is killed while it adds its counts to the files spoils them for everybody
   after it, who then complains on its standard error. So a child in a session of its own adds them, with nothing open
   that somebody waits for, and the process ends when that is done; who kills it then kills no writer. */
#include <signal.h>
#include <stdio.h>
#include <stdlib.h>
#include <sys/wait.h>
#include <unistd.h>

static int exit_status;

static void note(int status, void *unused) {
    (void)unused;
    exit_status = status;
}

/* Last of the program's own, so that the counts of all the others are among them. */
__attribute__((destructor(101))) static void let_a_child_write(void) {
    pid_t (*volatile plain_fork)(void) = fork; /* a call by name is made one that clears the counts of the child */
    fflush(NULL);
    pid_t child = plain_fork();
    if (child < 0)
        return;
    if (child == 0) {
        enum { PATIENCE_S = 20 };
        sigset_t all;
        sigemptyset(&all);
        sigprocmask(SIG_SETMASK, &all, NULL);
        signal(SIGALRM, SIG_DFL);
        alarm(PATIENCE_S);
        setsid();
        closefrom(0);
        return; /* to the end of exit(), where the counts are written */
    }
    waitpid(child, NULL, 0);
    _exit(exit_status);
}

__attribute__((constructor(101))) static void prepare(void) {
    on_exit(note, NULL);
}
