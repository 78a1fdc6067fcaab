/* dlog.h - the platform's log. */
#ifndef PLEXA_PLATFORM_DLOG_H
#define PLEXA_PLATFORM_DLOG_H

#ifdef __cplusplus
extern "C" {
#endif
/* Whoever defines these, in a library or in a program, is seen by all others. */
#pragma GCC visibility push(default)

/**
 * Write one message to a log buffer.
 *
 * @param buffer    Log buffer; libgst-plexa writes to 2.
 * @param priority  3 debug ... 6 error.
 * @param tag       Tag of the writing component; borrowed.
 * @param format    printf format of the message; "%m" prints the text of errno. The message may end
 *                  with a newline or without one, and may hold newlines.
 * @return Number of bytes written (0 when the message is below the log's level), or a negative
 * value.
 *
 * Safe from any thread.
 */
int __dlog_print(int buffer, int priority, const char *tag, const char *format, ...)
    __attribute__((format(printf, 4, 5)));

#pragma GCC visibility pop
#ifdef __cplusplus
}
#endif

#endif
