/*
 * In which form the message printer writes, and what of it: for programs whose messages go to a log.
 *
 *     imsg_set_form(IMSG_FORM_JSON, IMSG_WARNING);
 *     imsg_print(IMSG_WARNING, "half full\n", IMSG_FORMAT);
 *
 * writes {"time":"2026-11-22T10:00:00.000Z","severity":"warning","message":"half full"} and a newline.
 */
#ifndef VELIA_SUPPORT_IMSG_FORM_H
#define VELIA_SUPPORT_IMSG_FORM_H

#include <support/imsg.h>

#ifdef __cplusplus
extern "C" {
#endif
#pragma GCC visibility push(default)

/*
 * From now on, where no sink takes messages. `form` is any of these together, 0 for texts as they are:
 * IMSG_FORM_PRIORITIES heads each line that goes to a stream by its priority, as "<3>", for a journal that reads there;
 * IMSG_FORM_JSON writes each message as an object of one line: time, severity, subsystem (of those that have one),
 * message. Of less interest than `least` nothing is written: IMSG_ERROR for errors only, IMSG_WARNING for them and
 * warnings, IMSG_PLAIN for all but traces, IMSG_TRACE, as in the beginning, for all. May be called from any thread.
 */
enum { IMSG_FORM_PRIORITIES = 1, IMSG_FORM_JSON = 2 };
void imsg_set_form(int form, int least);

#pragma GCC visibility pop
#ifdef __cplusplus
}
#endif
#endif
