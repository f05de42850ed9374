/* A fatal error unwinds to the host, which then ends in order. */
#include <rm.h>
#include <stdio.h>

enum { EXIT_CODE = 7 };

static jmp_buf exit_target;
static jmp_buf fatal_target;

static void serve(void)
{
    rm_userSave("ann", 42);
    fatalRMExit("the catalogue is damaged"); /* does not come back */
}

int main(void)
{
    switch (setjmp(exit_target)) {
        case 0:
            rm_exitJump(exit_target); /* registered; main stays active from here to the end */
            break;
        case EXIT_CODE:
            puts("all resources are gone");
            return 0;
        default:
            return 1;
    }

    if (setjmp(fatal_target) != 0) {
        char name[15];
        uint16_t session = 0;
        rm_userGet(name, &session);
        printf("shutting down, user %s, session %u\n", name, session);
        rm_exit(EXIT_CODE);
    }
    rm_errorJump(fatal_target);
    serve();
    return 1;
}
