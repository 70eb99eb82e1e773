/* SPDX-License-Identifier: Apache-2.0 */
/**
 * @file tavrik_sdk.h
 * The public interface of the Tavrik SDK: everything that an application on the module may call.
 *
 * Results. An operation returns 0 when its work is done and -1 when it failed; where it returns anything else, its
 * description says so. Failures are logged (see "Logging"); nothing is retried. Results go through pointers of the
 * caller; unless a description says otherwise NULL is refused with -1. Texts end in a zero byte, and a stated buffer
 * size counts it.
 *
 * Threads. Every operation may be called from any thread at any time unless its description says otherwise. Calls
 * block the thread that makes them, and nothing else, for the time that is stated.
 *
 * Callbacks. Reply handlers of requests run on the thread that made the request, before the request returns. They may
 * call any operation unless its description says otherwise; the library holds no lock while it runs one.
 *
 * The process. The library is a guest: it leaves signal dispositions as they are, raises no SIGPIPE, waits for no child
 * that it did not start, opens every descriptor close-on-exec, and never ends the process.
 *
 * Names. Define TAVRIK_NO_SHORT_NAMES before the inclusion to leave out the functions whose names do not begin with
 * "tavrik" (`strlwr`, `at_tok_start`, ...), when the program has functions of these names itself. The library is bound
 * to its own ones either way.
 */
#ifndef TAVRIK_SDK_H
#define TAVRIK_SDK_H

#include <stddef.h>
#include <stdint.h>

#if defined(__GNUC__)
#define TAVRIK_API __attribute__((__visibility__("default")))
#define TAVRIK_PRINTF(text, first) __attribute__((__format__(__printf__, text, first)))
#else
#define TAVRIK_API
#define TAVRIK_PRINTF(text, first)
#endif

#ifdef __cplusplus
extern "C" {
#endif

/* ---- Version ------------------------------------------------------------------------------------------------- */

/** Version of this header. A library of the same major number works with it. */
#define TAVRIK_SDK_VERSION_MAJOR 1
#define TAVRIK_SDK_VERSION_MINOR 0
#define TAVRIK_SDK_VERSION_PATCH 0
#define TAVRIK_SDK_VERSION "1.0.0"

/* ---- Logging ------------------------------------------------------------------------------------------------- */

/** Where the lines of the library go. */
enum {
    TAVRIK_LOG_STDOUT = 0,  /**< standard output, "[sdklog err:FUNCTION:LINE]:TEXT" */
    TAVRIK_LOG_ANDROID = 1, /**< the module's own log (Android's shape), the mode at start */
    TAVRIK_LOG_SYSLOG = 2,  /**< syslog */
    TAVRIK_LOG_KERNEL = 3   /**< the kernel log, through Tavrik_kmsg_log(): a shell for every line, for a short look */
};

/**
 * Tells where the library logs to.
 *
 * @return the log mode, TAVRIK_LOG_STDOUT to TAVRIK_LOG_KERNEL.
 *
 * Blocks: never. In a callback: yes.
 */
TAVRIK_API int Tavrik_Get_Log_Mode(void);

/**
 * Chooses where the library logs to, for the whole process; lines from then on go there.
 *
 * @param mode TAVRIK_LOG_STDOUT (0) to TAVRIK_LOG_KERNEL (3).
 * @return 0; -1 for any other value, and the mode stays.
 *
 * Blocks: never. In a callback: yes.
 */
TAVRIK_API int Tavrik_Switch_Log_Mode(int mode);

/**
 * Writes one line to the kernel log: runs `echo TEXT > /dev/kmsg` in a shell, whatever the log mode.
 *
 * The text reaches the shell as it is, neither quoted nor escaped: `$`, `;`, a backquote and the like act there, with
 * the rights of the process. Never pass anything that comes from outside the program.
 *
 * @param level  1 error, 2 warning, 3 info, 4 debug: the text starts with "err:", "warn:", "info:" or "debug:". With
 *               any other value the text is empty.
 * @param format as for printf, with its arguments; prefix and text are cut to 1023 characters; each line feed in them
 *               becomes a blank. NULL gives the empty text.
 *
 * errno is kept. Failures are not reported.
 * Blocks: until the shell has ended. In a callback: yes.
 */
TAVRIK_API void Tavrik_kmsg_log(int level, const char *format, ...) TAVRIK_PRINTF(2, 3);

/**
 * Writes one line of each level, "log test", to where the library logs to: shows that they arrive.
 *
 * Blocks: never; in mode TAVRIK_LOG_KERNEL until four shells have ended. In a callback: yes.
 */
TAVRIK_API void Tavrik_Log_Test(void);

/* ---- AT channel ---------------------------------------------------------------------------------------------- */

/** What operations of the library wait for an answer of the modem, unless they say otherwise. */
#define TAVRIK_AT_TIMEOUT_MS 2000
/** Size of an answer buffer that holds every answer the library asks for. */
#define TAVRIK_AT_RESPONSE_SIZE 512

/**
 * Opens the process's one connection to the AT command server, the Unix stream socket "/tmp/atcmdsdk". With the
 * connection open it does nothing.
 *
 * @return 0; -1 when the server cannot be reached.
 *
 * Blocks: 2 s, while the server accepts nobody; before that, until an exchange of another thread has ended.
 * In a callback: yes.
 */
TAVRIK_API int Tavrik_AT_Init(void);

/**
 * Closes the connection to the AT command server, which may be opened again. With none open it does nothing.
 *
 * Blocks: until an exchange of another thread has ended. In a callback: yes.
 */
TAVRIK_API void Tavrik_AT_Deinit(void);

/**
 * Sends one command to the modem and collects its answer, through the AT command server.
 *
 * Standard: 3GPP TS 27.007 clause 4, ITU-T V.250 clause 5.
 *
 * What is left of earlier answers is discarded first. The answer is read in at most two pieces of at most 512 bytes.
 * The call ends well with the piece in which the expected text stands, and fails with one in which "ERROR" stands; a
 * text that is spread over two pieces is not seen.
 *
 * @param command    at least two characters; sent as it stands when it ends in a carriage return or line feed,
 *                   otherwise with both behind it.
 * @param expected   text that ends the answer: "OK", or a prefix such as "+CEREG:".
 * @param response   where everything received goes, echo and line ends included, as a text. It is cleared first. On
 *                   failure it holds what had arrived; it is left alone when an argument is refused.
 * @param size       of `response` in bytes, with the terminating zero: 1 or more.
 * @param timeout_ms limit for the answer in milliseconds, rounded down to whole seconds: 999 and less take what has
 *                   already arrived, -1000 and less fail after the command went out.
 * @return 0; -1 for a refused argument, without a connection, when the server is gone, at the time limit, when a
 *         signal handler of the program interrupts the wait, when the answer with its terminator does not fit into
 *         `response`, and when the modem answers with an error.
 *
 * Blocks: `timeout_ms` (and as long again, one second at least, while old input does not end); before that, until
 * exchanges of other threads have ended. In a callback: yes.
 * Before it: Tavrik_AT_Init(). A connection that the server has closed fails every call, until Tavrik_AT_Deinit() and
 * Tavrik_AT_Init() have made a new one. A time-out leaves the connection open.
 */
TAVRIK_API int Tavrik_AT_Send(const char *command, const char *expected, char *response, int size, int timeout_ms);

#ifndef TAVRIK_NO_SHORT_NAMES

/**
 * Connects to a Unix stream socket. A failure is told on standard error.
 *
 * @param path of the socket, at most 108 characters.
 * @return a descriptor, non-blocking and close-on-exec, that belongs to the caller; -1 on failure.
 *
 * Blocks: 2 s, while the server accepts nobody. In a callback: yes.
 */
TAVRIK_API int at_socket_init(const char *path);

/**
 * Closes a descriptor of at_socket_init().
 *
 * @param fd nothing is done when it is 0 or less.
 *
 * Blocks: never. In a callback: yes.
 */
TAVRIK_API void at_socket_deinit(int fd);

/**
 * Copies the rest of the line that follows a keyword, from right behind it (a blank there is copied too) up to the
 * first carriage return with a line feed.
 *
 * @param response      text to search.
 * @param keyword       its first occurrence counts.
 * @param[out] output   gets the characters without a terminating zero: clear it before. It must have room for all that
 *                      may follow the keyword, line ends or not (TAVRIK_AT_RESPONSE_SIZE does for an answer of that
 *                      size). On failure it may hold a part.
 * @return 0; -1 when an argument is NULL, the keyword is missing, or no line end follows.
 *
 * Blocks: never. In a callback: yes.
 */
TAVRIK_API int handle_response_data(const char *response, const char *keyword, char *output);

#endif

/* ---- Tokenizer and text helpers ------------------------------------------------------------------------------ */

/*
 * The tokenizer walks an information line of the modem (3GPP TS 27.007 clause 4), `+CREG: 2,1,"1A2B","01C4D5E6",7`,
 * by a cursor: a pointer into the line, of which each operation takes the address and which it moves on. It writes
 * zero bytes over the separators, so the line must be writable, and the texts it hands out live as long as the line.
 * A cursor that holds NULL stands behind the last field, or in a line without one.
 *
 * All of these keep no state, block nobody and may be called in a callback.
 */
#ifndef TAVRIK_NO_SHORT_NAMES

/**
 * Moves the cursor from the start of a line to behind its first ":".
 *
 * @param[in,out] cursor the line; NULL afterwards when it has no ":".
 * @return 0; -1 when there is no ":" or no line.
 */
TAVRIK_API int at_tok_start(char **cursor);

/**
 * Moves the cursor over blanks and the characters 9 to 13 (tabulators, line ends).
 *
 * @param[in,out] cursor may hold NULL, and then stays.
 * @return `cursor`.
 */
TAVRIK_API char **skip_white_space(char **cursor);

/**
 * Moves the cursor behind the next comma, or to the end of the line.
 *
 * @param[in,out] cursor may hold NULL, and then stays.
 * @return `cursor`.
 */
TAVRIK_API char **skip_next_comma(char **cursor);

/**
 * Reads the next field as a decimal number; what follows its digits is ignored.
 *
 * @param[in,out] cursor behind the field afterwards, on failure too.
 * @param[out] value     -2147483648 to 2147483647, the nearest one when the field is beyond; 0 for a field without
 *                       digits; unchanged without a field.
 * @return 0; -1 without a field or digits, and when an argument is NULL.
 */
TAVRIK_API int at_tok_nextint(char **cursor, int *value);

/**
 * Reads the next field as 0 or 1.
 *
 * @param[in,out] cursor behind the field afterwards, on failure too.
 * @param[out] value     0 or 1, unchanged on failure; NULL when only the check is wanted.
 * @return 0; -1 without a field, for any other content, and when `cursor` is NULL.
 */
TAVRIK_API int at_tok_nextbool(char **cursor, char *value);

/**
 * Tells whether text remains in the line.
 *
 * @param cursor NULL allowed.
 * @return 1 when text remains, else 0.
 */
TAVRIK_API int at_tok_hasmore(char **cursor);

/**
 * Reads the next field as text: between quotes, where commas belong to it, or up to the next comma.
 *
 * @param[in,out] cursor behind the field afterwards.
 * @param[out] value     the field inside the line, without its quotes; unchanged on failure.
 * @return 0; -1 when no field is left, and when an argument is NULL.
 */
TAVRIK_API int at_tok_nextstr(char **cursor, char **value);

/**
 * Finds a field of a delimited text. Empty fields do not count.
 *
 * @param text       cut at the delimiters up to the field.
 * @param delimiters each of these characters separates fields.
 * @param index      of the field, from 0.
 * @return the field inside `text`; NULL with fewer fields, and when an argument is NULL.
 */
TAVRIK_API char *string_split_parameter(char *text, const char *delimiters, int index);

/**
 * Tells whether a text can stand as one word.
 *
 * @param text NULL allowed.
 * @return 0; -1 when it is NULL, empty or holds a blank, tabulator, line feed or carriage return.
 */
TAVRIK_API int is_insert_special(const char *text);

/**
 * Turns "A" to "Z" into lower case, in place.
 *
 * @param text NULL does nothing.
 */
TAVRIK_API void strlwr(char *text);

/**
 * Reads the decimal number that follows a keyword.
 *
 * @param keyword its first occurrence counts; NULL reads from the start of the text.
 * @param text    to search.
 * @return the number, 4294967295 when it is beyond that, and a negative one modulo 4294967296; 0 when there is no
 *         number, no keyword in the text, or no text.
 */
TAVRIK_API unsigned long ulongfromstr(const char *keyword, const char *text);

/**
 * Reads the decimal number that follows a keyword.
 *
 * @param keyword its first occurrence counts; NULL reads from the start of the text.
 * @param text    to search.
 * @return the number, or the nearest one from -2147483648 to 2147483647; 0 when there is no number, no keyword in the
 *         text, or no text.
 */
TAVRIK_API int ufromstr(const char *keyword, const char *text);

/**
 * Runs a command in a shell and keeps the last line that it prints.
 *
 * @param command     for `sh -c`; its standard input and error are the program's.
 * @param[out] buffer the last line with its line feed, empty when nothing was printed. A line that is too long counts
 *                    as several. Unchanged when the command cannot be started.
 * @param size        of `buffer` in bytes, with the terminating zero: 1 or more.
 * @return 0, whatever the command's exit status; -1 when it cannot be started, when an argument is NULL or `size` less
 *         than 1.
 *
 * Blocks: until the command has ended and its output is closed. In a callback: yes.
 */
TAVRIK_API int system_handle(const char *command, char *buffer, int size);

#endif

/**
 * Converts UCS-2 to UTF-8 (RFC 3629) and logs the result at level info.
 *
 * @param ucs2      code units of two bytes, the high one first, up to the first zero byte (so a character whose high
 *                  or low byte is 0 ends the text). Surrogate pairs are not combined; half a unit at the end is left
 *                  out. NULL does nothing.
 * @param[out] utf8 the text with a terminating zero; its size must be half as much again as the input's length, and
 *                  one. NULL does nothing.
 *
 * Blocks: never, but for the log. In a callback: yes.
 */
TAVRIK_API void tavrik_ucs2_to_utf8(const char *ucs2, char *utf8);

/* ---- ubus and RIL requests ----------------------------------------------------------------------------------- */

/* The bus library's own types, never looked into here. */
struct ubus_context;
struct ubus_request;
struct blob_attr;
struct blob_buf;

/* libubus has process-wide state and no lock. The library guards it with a lock of its own, so every function below
 * may be called from any thread. No lock is held while a request waits for its reply or while a handler runs.
 *
 * Time limits. A limit above 0 covers the whole request from the call on: waiting for other threads, connecting,
 * looking up, sending, and the reply. 0 sets no limit for the reply; all before it then ends within 5 s. A negative
 * one sends the request and does not wait for the reply. */

/**
 * Reply handler of a request: libubus's data handler.
 *
 * @param request  The request; its member `priv` is the private pointer that the request was made with. Valid during
 *                 the call.
 * @param type     UBUS_MSG_DATA.
 * @param message  A copy of the reply, valid during the call; NULL or empty when the service replied without data.
 *
 * Runs on the thread that made the request, inside it, once for each reply message. May call any operation.
 */
typedef void (*Tavrik_UbusDataCb)(struct ubus_request *request, int type, struct blob_attr *message);

/**
 * Initialises uloop, the event loop of libubox, once. Signal dispositions stay as they were.
 *
 * @return 0, also when it is initialised already; -1 when uloop cannot get its descriptors, or another thread kept the
 *         bus busy for 5 s.
 *
 * Blocks for 5 s at most. May be called from a callback.
 */
TAVRIK_API int tavrik_ubus_init(void);

/**
 * Stops the loop thread and waits for its end, closes the connections that are kept for reuse, and releases uloop.
 *
 * Blocks until the loop thread has ended what it is at, and for 5 s more while other threads keep the bus busy. Called
 * on the loop thread itself it only asks that thread to stop.
 */
TAVRIK_API void tavrik_ubus_deinit(void);

/**
 * Starts the loop thread (name "tavrikuloop"), which serves asynchronous requests; initialises uloop if nobody has.
 *
 * @return 0, also when the thread runs already (a stop that it was asked for and has not carried out is revoked); -1
 *         when uloop or the thread cannot be had.
 *
 * Blocks for 5 s at most. May be called from a callback.
 */
TAVRIK_API int tavrik_ubus_thread_init(void);

/**
 * Asks the loop thread to stop. It leaves by itself; tavrik_ubus_deinit waits for that. Without a thread it does
 * nothing.
 *
 * Does not block. May be called from a callback.
 */
TAVRIK_API void tavrik_ubus_thread_deinit(void);

/**
 * Opens a ubus connection of the application's own, on the default socket.
 *
 * libubus may be entered with it only between tavrik_ubus_lock and tavrik_ubus_unlock. Nobody polls it: the
 * application waits for its socket and calls ubus_handle_event.
 *
 * @return The context, to be released with tavrik_free_ubus_ctx; NULL when the daemon cannot be reached or does not
 *         answer, or without memory.
 *
 * Blocks for 5 s at most. May be called from a callback, but not between tavrik_ubus_lock and tavrik_ubus_unlock: the
 * connection is made on another thread, which needs the lock (NULL after 5 s).
 */
TAVRIK_API struct ubus_context *tavrik_get_ubus_ctx(void);

/**
 * Closes a connection from tavrik_get_ubus_ctx and frees it.
 *
 * @param context  The connection, or NULL for nothing.
 *
 * Blocks while another thread is inside libubus: microseconds as a rule, 5 s when the daemon is stuck.
 */
TAVRIK_API void tavrik_free_ubus_ctx(struct ubus_context *context);

/**
 * Takes the lock that guards libubus and uloop, for calls with a context of the application's own. SIGPIPE is blocked
 * in the calling thread until tavrik_ubus_unlock. The lock may be taken again by the thread that has it; each lock
 * needs its unlock. Do not wait for anything with the lock held: all requests of all threads wait meanwhile.
 *
 * Blocks while another thread is inside libubus.
 */
TAVRIK_API void tavrik_ubus_lock(void);

/**
 * Releases the lock that tavrik_ubus_lock took, on the same thread. On a thread that does not have the lock it does
 * nothing.
 *
 * Does not block.
 */
TAVRIK_API void tavrik_ubus_unlock(void);

/**
 * Sends one RIL request without payload, method "ril_request" of the ubus object "ril", and waits for its reply.
 *
 * @param request     The request id, for example 38 for the IMEI.
 * @param callback    Reply handler, or NULL. Not called when the request fails before a reply.
 * @param priv        Private pointer for the handler; any value.
 * @param timeout_ms  Limit in milliseconds, see above.
 * @return 0 when the service ended the request with success; -1 when the bus or the object is not there, the limit
 *         passed, or the service answered with a failure.
 *
 * Blocks for `timeout_ms`, and as long as `callback` takes. May be called from a callback.
 */
TAVRIK_API int tavrik_ubus_invoke(uint32_t request, Tavrik_UbusDataCb callback, void *priv, int timeout_ms);

/**
 * Calls a method of any ubus object and waits for its reply.
 *
 * @param message     Arguments: a buffer filled with libubox's blobmsg functions, or NULL for none. Not changed.
 * @param object      Path of the object.
 * @param method      Name of the method.
 * @param keep_reply  Not 0: keep the reply for the caller.
 * @param reply       With `keep_reply`, receives a copy of the (last) reply, to be released with free(); NULL when
 *                    there was none. It may be set although the call failed. NULL keeps nothing.
 * @param timeout_ms  Limit in milliseconds, see above.
 * @return 0 when the service ended the call with success; -1 as tavrik_ubus_invoke, and for a NULL name.
 *
 * Blocks for `timeout_ms`. May be called from a callback.
 */
TAVRIK_API int tavrik_call_ubusinvoke(struct blob_buf *message, const char *object, const char *method, int keep_reply,
                                      struct blob_attr **reply, int timeout_ms);

#ifndef TAVRIK_NO_SHORT_NAMES

/**
 * Makes a message buffer ready for use. Storage that it has is forgotten, not freed, because a buffer that was never
 * initialised cannot be told from one that was: call _free_blob_buf before a second use.
 *
 * @param message  The buffer; NULL is ignored. Does not block.
 */
TAVRIK_API void _reset_blob_buf(struct blob_buf *message);

/**
 * Frees the storage of a message buffer, if it has any. May be called twice.
 *
 * @param message  The buffer; NULL is ignored. Does not block.
 */
TAVRIK_API void _free_blob_buf(struct blob_buf *message);

#endif

/* ---- Device management --------------------------------------------------------------------------------------- */

/** 15 digits and the terminating zero. */
#define TAVRIK_IMEI_SIZE 16
#define TAVRIK_MANUFACTURER_SIZE 20
#define TAVRIK_MODEL_SIZE 30
#define TAVRIK_REVISION_SIZE 40

/** Who made the module, and what it runs; each text ends in a zero byte. */
typedef struct Tavrik_VersionInfo {
    char manufacturer[TAVRIK_MANUFACTURER_SIZE];
    char model[TAVRIK_MODEL_SIZE];
    char revision[TAVRIK_REVISION_SIZE];
} Tavrik_VersionInfo;

/** Operating mode of the phone part. */
enum {
    TAVRIK_PHONE_MODE_OTHER = 0,  /**< only read: any other state of the radio interface layer */
    TAVRIK_PHONE_MODE_ONLINE = 1, /**< full functionality */
    TAVRIK_PHONE_MODE_MINIMUM = 2 /**< minimum functionality, the radio is off */
};

/**
 * Reads manufacturer, model and firmware revision (AT+PALDEXATI).
 *
 * Standard: 3GPP TS 27.007 clauses 5.1 to 5.3 (the same three texts, by one command of the module).
 *
 * @param[out] info texts without blanks at their ends, cut to their fields. On failure the fields before the missing
 *                  one are filled, that one is empty, and the rest is left alone.
 * @return 0; -1 when `info` is NULL, the command fails, or its answer lacks one of the lines.
 *
 * Blocks: as Tavrik_AT_Send() with 2 s. In a callback: yes. Before it: Tavrik_AT_Init().
 */
TAVRIK_API int Tavrik_DM_GetVersionInfo(Tavrik_VersionInfo *info);

/**
 * Reads the module's IMEI (ubus object "ril", method "ril_request", request 38).
 *
 * Standard: 3GPP TS 27.007 clause 5.4, TS 23.003 clause 6.
 *
 * @param[out] imei   of TAVRIK_IMEI_SIZE bytes: the digits as a text.
 * @param[out] length number of digits, without the terminating zero.
 * @return 0; -1 when a pointer is NULL, the request fails, or the reply is unusable. Both outputs are unchanged then.
 *
 * Blocks: 3 s. In a callback: yes.
 */
TAVRIK_API int Tavrik_DM_GetIMEI(char *imei, int *length);

/**
 * Reads the phone's operating mode (ubus object "ril", method "ril_request", request 537).
 *
 * Standard: 3GPP TS 27.007 clause 8.2.
 *
 * @param[out] mode TAVRIK_PHONE_MODE_ONLINE, _MINIMUM or _OTHER; unchanged on failure.
 * @return 0; -1 when `mode` is NULL, the request fails, or the reply is unusable.
 *
 * Blocks: 3 s. In a callback: yes.
 */
TAVRIK_API int Tavrik_DM_GetPhoneMode(int *mode);

/**
 * Switches the phone part on or off (ubus object "ril", method "ril_request", request 538).
 *
 * Standard: 3GPP TS 27.007 clause 8.2.
 *
 * @param mode TAVRIK_PHONE_MODE_ONLINE or TAVRIK_PHONE_MODE_MINIMUM.
 * @return 0; -1 for any other mode (nothing is sent), when the request fails, and when the modem refuses it.
 *
 * Blocks: 9 s. In a callback: yes.
 */
TAVRIK_API int Tavrik_DM_SetPhoneMode(int mode);

#ifndef TAVRIK_NO_SHORT_NAMES

/**
 * Reply handlers of the requests 38, 537 and 538, for requests of the application's own: each checks a reply and logs
 * what is wrong with it. The operations above keep their results per call, so these hand nothing out.
 *
 * @param request not looked at, NULL allowed.
 * @param type    not looked at.
 * @param message the reply; NULL is logged as a reply that cannot be parsed.
 *
 * Blocks: never, but for the log. In a callback: they are callbacks.
 */
TAVRIK_API void get_imei_request_cb(struct ubus_request *request, int type, struct blob_attr *message);
TAVRIK_API void dms_get_op_mode_cb(struct ubus_request *request, int type, struct blob_attr *message);
TAVRIK_API void dms_set_op_mode_cb(struct ubus_request *request, int type, struct blob_attr *message);

#endif

#ifdef __cplusplus
}
#endif

#endif
