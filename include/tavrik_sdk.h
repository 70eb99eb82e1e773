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
 * Callbacks. Reply handlers of requests run on the thread that made the request, before the request returns; those of
 * indications on one thread of the library (`sdkind0306`), those of asynchronous requests on another (`tavrikuloop`),
 * positions on a third (`tavriksdknmea`).
 * They may call any operation unless its description says otherwise; the library holds no lock while it runs one.
 *
 * The process. The library is a guest: it leaves signal dispositions as they are, raises no SIGPIPE, waits for no child
 * that it did not start, opens every descriptor close-on-exec, and never ends the process, with the one exception that
 * Tavrik_Ecall_Start() names.
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
 * Aborts the asynchronous requests that are under way (each is logged, and told so where it has a callback of its own),
 * stops the loop thread and waits for its end, closes the connections that are kept for reuse, and releases uloop.
 *
 * Blocks for 2 s while a callback runs on the loop thread, and for 10 s more while other threads keep the bus busy. A
 * callback that lasts longer is left behind with an error line in the log: its thread ends when it returns. Called on
 * the loop thread itself it waits for nothing: that thread does the same when its callback has returned.
 */
TAVRIK_API void tavrik_ubus_deinit(void);

/**
 * Starts the loop thread (name "tavrikuloop"), which serves asynchronous requests; initialises uloop if nobody has.
 *
 * @return 0, also when the thread runs already (a stop that it was asked for and has not carried out is revoked); -1
 *         when uloop or the thread cannot be had, and on a loop thread for whose end another thread waits.
 *
 * Blocks for 5 s at most, and before that while tavrik_ubus_deinit runs on another thread. May be called from a
 * callback.
 */
TAVRIK_API int tavrik_ubus_thread_init(void);

/**
 * Asks the loop thread to stop. It leaves by itself once no asynchronous request is under way, which is after 60 s at
 * the latest; tavrik_ubus_deinit does not wait for that. Without a thread it does nothing.
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
 * Blocks while another thread is inside libubus: microseconds as a rule; while the daemon is stuck, until that thread's
 * own limit.
 */
TAVRIK_API void tavrik_free_ubus_ctx(struct ubus_context *context);

/**
 * Takes the lock that guards libubus and uloop, for calls with a context of the application's own. SIGPIPE is blocked
 * in the calling thread until tavrik_ubus_unlock. The lock may be taken again by the thread that has it; each lock
 * needs its unlock. Do not wait for anything with the lock held: all requests of all threads wait meanwhile. Nor make
 * requests by functions of the library: one that needs a new connection fails at its limit.
 *
 * Blocks as tavrik_free_ubus_ctx.
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

/* ---- Indications --------------------------------------------------------------------------------------------- */

/* Unsolicited results of the modem arrive on the socket "/tmp/atcmdsdkind" of the AT command server. One thread of the
 * library, the indication thread "sdkind0306", reads it, parses each line and calls the callback of its category.
 *
 * Callbacks run on that thread one at a time, in the order of the lines. They may call every operation, deregistering
 * their own category included. A slow one delays those that follow and loses nothing.
 *
 * A deregistration from another thread waits for a callback of its categories that is running: once it has returned
 * none of them runs. A callback that lasts longer than 2 s more is left behind with an error line in the log; the
 * categories that remain are then served by a new thread, from the next line on. Two callbacks on two threads of the
 * library that deregister each other's category do not wait for each other.
 *
 * Which unsolicited results the modem sends is its own setting: the library never sends AT+CREG=n, AT+CNMI and the
 * like. docs/indications.md describes the lines. */

/** Categories of indications. */
enum {
    TAVRIK_IND_SMS = 0,     /**< Tavrik_SmsCb, event 0 */
    TAVRIK_IND_VOICE = 1,   /**< Tavrik_CallCb */
    TAVRIK_IND_DATA = 2,    /**< Tavrik_DataCb */
    TAVRIK_IND_ECALL = 3,   /**< Tavrik_EcallCb */
    TAVRIK_IND_NETWORK = 4, /**< Tavrik_NwCb */
    TAVRIK_IND_SIM = 5,     /**< Tavrik_SimCb */
    TAVRIK_IND_CELL = 6     /**< Tavrik_CellCb: cells and signal */
};

/** What an unknown value is in the records below, where nothing else is said. */
#define TAVRIK_UNKNOWN_U8 0xFFu
#define TAVRIK_UNKNOWN_U16 0xFFFFu
#define TAVRIK_UNKNOWN_U32 0xFFFFFFFFu
#define TAVRIK_UNKNOWN_S16 INT16_MIN
#define TAVRIK_UNKNOWN_S32 INT32_MIN

/** The modem's registration changed: +CREG, +CGREG, +CEREG (3GPP TS 27.007 clauses 7.2, 10.1.20, 10.1.22). 8 bytes. */
typedef struct Tavrik_NwEvent {
    uint8_t state;         /**< <stat>: 0 to 5 and above; 1 home, 5 roaming */
    uint8_t source_access; /**< high nibble: 1 +CREG, 2 +CGREG, 3 +CEREG; low nibble: <AcT>, 15 unknown */
    uint16_t area;         /**< location or tracking area code, 0 unknown */
    uint32_t cell;         /**< cell identity, 0 unknown */
} Tavrik_NwEvent;

/** The SIM card's state changed: +CPIN (3GPP TS 27.007 clause 8.3), +SIMCARD. 64 bytes. */
typedef struct Tavrik_SimEvent {
    uint32_t kind;        /**< 6 */
    uint32_t size;        /**< of this record */
    int32_t state;        /**< card state, as Tavrik_UIM_GetUimCardStatus() gives it */
    int32_t source;       /**< 1 +CPIN, 2 +SIMCARD */
    int32_t value;        /**< behind +SIMCARD: 0 no card, else a card; TAVRIK_UNKNOWN_S32 with +CPIN */
    char text[32];        /**< the line behind its ":", cut to 31 characters */
    uint8_t reserved[12]; /**< 0 */
} Tavrik_SimEvent;

/** The serving cell: +EEMGINFOSVC (GSM), +EEMUMTSSVC (WCDMA), +EEMLTESVC (LTE). 64 bytes. */
typedef struct Tavrik_CellEvent {
    uint32_t kind;        /**< 7 */
    uint32_t size;        /**< of this record */
    int32_t act;          /**< 2 GSM, 3 WCDMA, 4 LTE */
    uint16_t mcc;         /**< mobile country code */
    uint16_t mnc;         /**< mobile network code */
    uint8_t mnc_digits;   /**< 2 or 3 */
    uint8_t bandwidth;    /**< downlink, as the modem reports it */
    uint16_t band;        /**< number of the band */
    uint32_t area;        /**< location or tracking area code */
    uint32_t cell;        /**< cell identity */
    uint32_t arfcn;       /**< channel number: ARFCN, UARFCN or EARFCN */
    uint16_t phys_id;     /**< BSIC, primary scrambling code or physical cell identity */
    int16_t level;        /**< raw index: rxlev, rscp or rsrp */
    int16_t quality;      /**< raw index: rxqual, ecno or rsrq */
    int16_t sinr;         /**< raw value, LTE */
    uint8_t reserved[24]; /**< 0 */
} Tavrik_CellEvent;

/** The signal: +CESQ, raw indexes (3GPP TS 27.007 clause 8.69). 32 bytes. */
typedef struct Tavrik_SignalEvent {
    uint32_t kind;        /**< 8 */
    uint32_t size;        /**< of this record */
    uint8_t rxlev;        /**< 99 unknown */
    uint8_t ber;          /**< 99 unknown */
    uint8_t rscp;         /**< 255 unknown */
    uint8_t ecno;         /**< 255 unknown */
    uint8_t rsrq;         /**< 255 unknown */
    uint8_t rsrp;         /**< 255 unknown */
    uint8_t reserved[18]; /**< 0 */
} Tavrik_SignalEvent;

/** A packet data context came up or went down: +ZCONSTAT. 64 bytes. */
typedef struct Tavrik_DataEvent {
    uint32_t kind;        /**< 2; 4 when a profile that the application has started went down */
    uint32_t size;        /**< of this record */
    int32_t cid;          /**< context identifier */
    int32_t profile_idx;  /**< profile index, `cid` - 1; TAVRIK_UNKNOWN_S32 beyond 15 */
    int32_t state;        /**< 0 down, 1 up */
    int32_t cause;        /**< 3GPP TS 24.008 clause 10.5.6.6 */
    int32_t ip_type;      /**< 4 IPv4, 6 IPv6, 10 both */
    char ifname[16];      /**< network interface, "ccinet0" and so on */
    uint8_t reserved[20]; /**< 0 */
} Tavrik_DataEvent;

struct Tavrik_CallList;

/**
 * Callbacks, by category. A record belongs to the library and is valid during the call, save one: `data` of SMS event
 * 0, an incoming message, is an SmsMessage that belongs to the application, which releases it with free().
 */
typedef void (*Tavrik_SmsCb)(int event, void *data);
typedef void (*Tavrik_CallCb)(const struct Tavrik_CallList *calls);
typedef void (*Tavrik_DataCb)(const Tavrik_DataEvent *event);
/**
 * An eCall report: `value` is the first field behind *ECALLDATA, 0 when that is no number, and `*text` the next field.
 * Or the eCall has ended (+CALLDISCONNECT): `value` is -1 and `*text` the cause. `*text` is NULL when there is none.
 */
typedef void (*Tavrik_EcallCb)(int32_t value, const char *const *text);
typedef void (*Tavrik_NwCb)(const Tavrik_NwEvent *event);
typedef void (*Tavrik_SimCb)(const Tavrik_SimEvent *event);
/** A Tavrik_CellEvent or a Tavrik_SignalEvent: the first member, `kind`, tells (7 or 8). */
typedef void (*Tavrik_CellCb)(const void *event);

/** Any of these callbacks, cast to this type. */
typedef void (*Tavrik_IndicationCb)(void);

/**
 * Registers the callback of a category, and starts the indication thread when none runs (a connection to the Unix
 * stream socket "/tmp/atcmdsdkind").
 *
 * @param category TAVRIK_IND_SMS (0) to TAVRIK_IND_CELL (6).
 * @param callback of the category's type, cast to Tavrik_IndicationCb. A category that has a callback keeps it, and
 *                 the new one is ignored.
 * @return 0; -1 for any other category, for NULL, and when the thread cannot be started because the server cannot be
 *         reached: the callback is registered all the same, and the next registration tries again.
 *
 * Blocks: 2 s, while the server accepts nobody. In a callback: yes.
 */
TAVRIK_API int tavrik_indication_register(int category, Tavrik_IndicationCb callback);

/**
 * Removes all callbacks of all categories, stops the indication thread and closes its connection. What was read and
 * not delivered is lost. Everything may be registered again afterwards.
 *
 * @return 0.
 *
 * Blocks: 2 s, while a callback runs on another thread. In a callback: yes, the thread then ends when the callback has
 * returned.
 */
TAVRIK_API int tavrik_indication_deregister(void);

/**
 * Remove the callback of one family: SMS, voice calls, data calls, eCall, network (TAVRIK_IND_NETWORK and
 * TAVRIK_IND_CELL), SIM. Each lowers the number of registrations by one, the network one always by two, whether or not
 * there was a callback. When the number becomes 0, uloop is released (tavrik_ubus_deinit()) and everything is removed
 * as tavrik_indication_deregister() does. The loop thread is asked to stop in any case (tavrik_ubus_thread_deinit()).
 *
 * @return 0.
 *
 * Blocks: 2 s, while a callback of the family runs on another thread; the last one besides as tavrik_ubus_deinit().
 * In a callback: yes.
 */
TAVRIK_API int tavrik_indication_smsderegister(void);
TAVRIK_API int tavrik_indication_voicecallderegister(void);
TAVRIK_API int tavrik_indication_datacallderegister(void);
TAVRIK_API int tavrik_indication_ecallderegister(void);
TAVRIK_API int tavrik_indication_nwderegister(void);
TAVRIK_API int tavrik_indication_uimderegister(void);

/** State of the indication channel. */
enum {
    TAVRIK_INDICATION_NONE = 0,      /**< no indication thread */
    TAVRIK_INDICATION_CONNECTED = 1, /**< the thread has its connection */
    TAVRIK_INDICATION_LOST = -1      /**< the server has closed the connection: nothing arrives any more */
};

/**
 * Tells whether indications can arrive. A lost connection is not made again by itself: tavrik_indication_deregister(),
 * then register again.
 *
 * @return TAVRIK_INDICATION_NONE, TAVRIK_INDICATION_CONNECTED or TAVRIK_INDICATION_LOST.
 *
 * Blocks: never. In a callback: yes.
 */
TAVRIK_API int Tavrik_Indication_State(void);

/**
 * Handler of a category: hands the record of an event to the category's callback. The library's own ones are stored by
 * tavrik_indication_register().
 *
 * @param event  0 SMS (`record` is an SmsMessage that now belongs to the handler), 1 voice call, 2 and 4 data call,
 *               3 eCall (an int32_t and a const char *, the value and the text), 5 network, 6 SIM, 7 and 8 cell and
 *               signal.
 * @param record of that event, valid during the call.
 */
typedef void (*Tavrik_IndicationHandler)(int event, void *record);

#ifndef TAVRIK_NO_SHORT_NAMES

/**
 * Starts the indication thread, when none runs.
 *
 * @return the thread (a pthread_t), the running one when there is one; 0 when the server cannot be reached or no thread
 *         can be had. It ends with tavrik_indication_deregister() and must be neither joined nor detached.
 *
 * Blocks: 2 s, while the server accepts nobody. In a callback: yes.
 */
TAVRIK_API unsigned long start_indication_thread(void);

/**
 * What the indication thread runs. It is of no use to anybody else: on any other thread it returns at once.
 *
 * @param argument the library's own.
 * @return NULL. Blocks: on its own thread until that is told to end, elsewhere never. In a callback: yes.
 */
TAVRIK_API void *receive_ind_data_from_at_channel(void *argument);

/**
 * Cuts a chunk into lines, each ended by CR LF, and has each reported as by on_at_indication_report(), without its end
 * and cut to 511 characters. A line that starts with "+CMT:" is reported together with the one that follows. Empty
 * lines, and what stands behind the last line end, are left out.
 *
 * @param buffer the chunk; NULL does nothing.
 * @param length of it in bytes; nothing is done when it is 0 or less.
 *
 * Blocks: as long as the callbacks take, which run on the calling thread. In a callback: yes.
 */
TAVRIK_API void at_indication_data_handler(const char *buffer, int length);

/**
 * Parses one unsolicited result and calls its category's callback, on the calling thread.
 *
 * @param line without its line end, cut to 511 characters; a "+CMT:" line with CR LF and the PDU behind it.
 * @return 0, also for a line of no category; -1 when the line cannot be parsed, or is NULL.
 *
 * Blocks: as long as the callback takes. In a callback: yes.
 */
TAVRIK_API int on_at_indication_report(const char *line);

/**
 * Stores a handler, in place of the library's own, until the next registration for its category.
 *
 * @param slot    0 SMS, 1 voice call, 2 eCall, 3 cell and signal, 4 network, 5 SIM, 6 data call; any other is ignored.
 * @param handler NULL drops the events of the slot.
 * @return 0.
 *
 * Blocks: never. In a callback: yes.
 */
TAVRIK_API int add_ind_cb(int slot, Tavrik_IndicationHandler handler);

/**
 * Clears all handlers: events are dropped from then on, in each category until something is registered for it.
 *
 * Blocks: never. In a callback: yes.
 */
TAVRIK_API void remove_ind_cb(void);

#endif

/* ---- Start and stop ------------------------------------------------------------------------------------------- */

/**
 * Starts the library: Tavrik_SMS_Init(), Tavrik_VoiceCall_Init() and tavrik_ubus_init(), in this order. Families that
 * are not named here have calls of their own, and the AT channel is opened by those that need it.
 *
 * May be called again, after Tavrik_Basic_Destroy() and without it: a callback that is registered stays then.
 *
 * @param sms  SMS callback, or NULL: none is registered. On the indication thread for incoming messages, for results of
 *             sends as Tavrik_SMS_SendMsg() and Tavrik_SMS_SendMsg_Async() say.
 * @param call callback for calls, or NULL: none is registered. On the indication thread.
 * @return 0; -1 when one of the three fails. What was done before that stays, and Tavrik_Basic_Destroy() removes it.
 *
 * Blocks: 2 s for each callback while the AT server accepts nobody, and 5 s while other threads keep the bus busy.
 * In a callback: yes.
 */
TAVRIK_API int Tavrik_Basic_Init(Tavrik_SmsCb sms, Tavrik_CallCb call);

/**
 * Stops the library: tavrik_ubus_deinit(), which aborts asynchronous requests that are under way, and
 * tavrik_indication_deregister(), which removes the callbacks of all families. Harmless when nothing was started. The
 * AT channel stays open.
 *
 * @return 0.
 *
 * Blocks: as tavrik_ubus_deinit(), and 2 s while a callback of an indication runs on another thread. In a callback:
 * yes, it does not wait for itself; the callback's thread ends when it has returned.
 */
TAVRIK_API int Tavrik_Basic_Destroy(void);

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

/**
 * Switches automatic suspend on or off ("/sys/power/autosleep").
 *
 * @param on 0 off, anything else on.
 * @return 0; -1 when the shell cannot be started or reports an error of the write. A file that the system does not have
 *         counts as written.
 *
 * Blocks: while the kernel takes the write. In a callback: yes.
 */
TAVRIK_API int Tavrik_DM_SetAutoSleep(int on);

/**
 * Takes a wake lock ("/sys/power/wake_lock"): while one is held the module does not suspend by itself.
 *
 * @param name       1 to 97 characters without blanks, tabulators and line ends, less the time-out's digits and seven.
 * @param timeout_ms after so many milliseconds the lock expires; 0 never. UINT32_MAX is refused.
 * @return 0; -1 for a refused argument and when the write fails. A file that the system does not have counts as
 * written.
 *
 * Blocks: while the kernel takes the write. In a callback: yes.
 */
TAVRIK_API int Tavrik_DM_CreatSourceLock(const char *name, uint32_t timeout_ms);

/**
 * Lists the wake locks that are held, separated by blanks.
 *
 * @param[out] locks gets 511 characters at the most.
 * @param size       of `locks` in bytes, 1 or more. A list that fills it has no terminating zero: give 512.
 * @return 0; -1 for NULL or a refused size, and when the shell cannot be started.
 *
 * Blocks: while the shell runs. In a callback: yes.
 */
TAVRIK_API int Tavrik_DM_ViewSourceLock(char *locks, int size);

/**
 * Releases a wake lock that is held ("/sys/power/wake_unlock").
 *
 * @param name as Tavrik_DM_CreatSourceLock() took it.
 * @return 0; -1 for a refused name, when no lock of this name is held, and when the write fails.
 *
 * Blocks: while the shell runs, twice. In a callback: yes.
 */
TAVRIK_API int Tavrik_DM_RemoveSourceLock(const char *name);

/**
 * Flushes the file systems and reboots the module (command "reboot").
 *
 * @return 0, if the process lives to see it; -1 when the command fails.
 *
 * Blocks: until the file systems are flushed and the command has returned. In a callback: yes.
 */
TAVRIK_API int Tavrik_DM_Reboot(void);

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

/* ---- SIM card ------------------------------------------------------------------------------------------------ */

/** Sizes of the callers' buffers, with the terminating zero: 20 digits and room, the longest number, 15 digits. */
#define TAVRIK_ICCID_SIZE 24
#define TAVRIK_NUMBER_SIZE 64
#define TAVRIK_IMSI_SIZE 16

/** State of the SIM card. */
enum {
    TAVRIK_UIM_ABSENT = 0,
    TAVRIK_UIM_READY = 1,
    TAVRIK_UIM_PIN_REQUIRED = 2, /**< PIN or PIN2 */
    TAVRIK_UIM_PUK_REQUIRED = 3, /**< PUK or PUK2 */
    TAVRIK_UIM_PUK_BLOCKED = 5,
    TAVRIK_UIM_UNKNOWN = 6
};

/**
 * Opens the AT channel for the operations below; the same as Tavrik_AT_Init().
 *
 * @return 0; -1 when the AT command server cannot be reached.
 *
 * Blocks: as Tavrik_AT_Init(). In a callback: yes.
 */
TAVRIK_API int Tavrik_UIM_Init(void);

/**
 * Registers the application's callback for SIM events; the first one stays until Tavrik_UIM_Deinit_Ex().
 *
 * @param callback gets each event on the indication thread.
 * @return 0; -1 when `callback` is NULL or the indication channel cannot be opened (the callback stays registered).
 *
 * Blocks: as tavrik_indication_register(). In a callback: yes.
 */
TAVRIK_API int Tavrik_UIM_Init_Ex(Tavrik_SimCb callback);

/**
 * Takes the callback for SIM events back; as tavrik_indication_uimderegister().
 *
 * @return 0; -1 when the deregistration fails.
 *
 * Blocks: as tavrik_indication_uimderegister(). In a callback: yes.
 */
TAVRIK_API int Tavrik_UIM_Deinit_Ex(void);

/**
 * Reads the state of the card (AT+CPIN?).
 *
 * Standard: 3GPP TS 27.007 clause 8.3.
 *
 * @param card       0; there is one card.
 * @param[out] state TAVRIK_UIM_ABSENT to TAVRIK_UIM_UNKNOWN. When the modem answers with an error that says nothing
 *                   about the card, 0 is returned and the state is left alone: preset it.
 * @return 0; -1 for a refused argument, when the modem does not answer (the state is TAVRIK_UIM_UNKNOWN then), and
 *         when its answer has no state.
 *
 * Blocks: as Tavrik_AT_Send() with 2 s. In a callback: yes. Before it: Tavrik_UIM_Init().
 */
TAVRIK_API int Tavrik_UIM_GetUimCardStatus(int card, int *state);

/**
 * Reads the number of the card (AT+CICCID).
 *
 * Standard: ITU-T E.118, 3GPP TS 31.102 clause 4.2.2 (EF ICCID of TS 102 221 clause 13.2).
 *
 * @param card        0.
 * @param[out] iccid  of TAVRIK_ICCID_SIZE bytes; empty when the answer does not fit, untouched when the modem refuses.
 * @param[out] length in characters; unchanged on failure.
 * @return 0; the positive number of a CME error (3GPP TS 27.007 clause 9.2); -1 for a refused argument, for a CME error
 *         in words or with number 0, and when there is no usable answer.
 *
 * Blocks: as Tavrik_AT_Send() with 2 s. In a callback: yes. Before it: Tavrik_UIM_Init().
 */
TAVRIK_API int Tavrik_UIM_GetICCID(int card, char *iccid, int *length);

/**
 * Reads the subscriber's identity (AT+CIMI): the 15 characters behind the line end that begins the answer. The line
 * that logs it has error level.
 *
 * Standard: 3GPP TS 27.007 clause 5.6.
 *
 * @param card        0.
 * @param[out] imsi   of TAVRIK_IMSI_SIZE bytes.
 * @param[out] length 15; less only if the answer itself was shorter. Unchanged on failure, as `imsi`.
 * @return 0; -1 for a refused argument and when the command fails.
 *
 * Blocks: as Tavrik_AT_Send() with 2 s. In a callback: yes. Before it: Tavrik_UIM_Init().
 */
TAVRIK_API int Tavrik_UIM_GetIMSI(int card, char *imsi, int *length);

/**
 * Reads the own number that the card holds (AT+CNUM, its first entry).
 *
 * Standard: 3GPP TS 27.007 clause 7.1.
 *
 * @param card        0.
 * @param[out] number of TAVRIK_NUMBER_SIZE bytes; may become empty.
 * @param[out] length in characters. Both are unchanged on failure.
 * @return 0; -1 for a refused argument, when the command fails, and when the answer has no number or too long a one.
 *
 * Blocks: as Tavrik_AT_Send() with 2 s. In a callback: yes. Before it: Tavrik_UIM_Init().
 */
TAVRIK_API int Tavrik_UIM_GetPhoneNum(int card, char *number, int *length);

/**
 * Writes the own number to the card (AT+CNUM), with type 145 when it begins with a plus sign.
 *
 * @param card   0.
 * @param number decimal digits, maybe behind a plus sign: at most 51 characters, 47 with the plus sign. May be empty.
 * @return 0; -1 for a refused argument (nothing is sent) and when the modem refuses.
 *
 * Blocks: as Tavrik_AT_Send() with 2 s. In a callback: yes. Before it: Tavrik_UIM_Init().
 */
TAVRIK_API int Tavrik_UIM_SetPhoneNum(int card, const char *number);

/**
 * Switch the SIM interface on (AT+CFUN=1) and off (AT+CFUN=5).
 *
 * Standard: 3GPP TS 27.007 clause 8.2.
 *
 * @param card 0.
 * @return 0; -1 for another card (nothing is sent) and when the command fails.
 *
 * Blocks: as Tavrik_AT_Send() with 4 s and 2 s. In a callback: yes. Before it: Tavrik_UIM_Init().
 */
TAVRIK_API int Tavrik_UIM_Powerup(int card);
TAVRIK_API int Tavrik_UIM_Powerdown(int card);

#ifndef TAVRIK_NO_SHORT_NAMES

/**
 * Tells whether a text is a telephone number: decimal digits with a plus sign at most in front.
 *
 * @param number the text; an empty one is a number, NULL is not.
 * @return 1 or 0.
 *
 * Blocks: never. In a callback: yes.
 */
TAVRIK_API int phonenum_is_valid(const char *number);

/**
 * Reply handlers for requests of the application's own: SIM status (request 1), IMSI (request 11), and a number (any
 * request). Each checks a reply and logs what is wrong with it, and hands nothing out.
 *
 * @param request not looked at, NULL allowed.
 * @param type    not looked at.
 * @param message the reply; NULL is logged as a reply that cannot be parsed.
 *
 * Blocks: never, but for the log. In a callback: they are callbacks.
 */
TAVRIK_API void uim_status_request_cb(struct ubus_request *request, int type, struct blob_attr *message);
TAVRIK_API void uim_imsi_request_cb(struct ubus_request *request, int type, struct blob_attr *message);
TAVRIK_API void uim_phonenum_request_cb(struct ubus_request *request, int type, struct blob_attr *message);

#endif

/* ---- Network ------------------------------------------------------------------------------------------------- */

/** Access technology of the serving cell. */
enum { TAVRIK_NW_GSM = 2, TAVRIK_NW_WCDMA = 3, TAVRIK_NW_LTE = 4 };

/**
 * Signal values as the modem counts them (3GPP TS 27.007 clause 8.69; 99 and 255 mean unknown). Only LTE fills all
 * fields: with WCDMA `rxlev` holds the RSCP and with GSM the RXLEV, and the others keep what the caller left there.
 */
typedef struct Tavrik_Signal {
    int16_t rxlev; /**< +CESQ field 0: 0..63, dBm + 111; with WCDMA field 2, the RSCP: 0..96, dBm + 121 */
    int16_t rsrp;  /**< +CESQ field 5: 0..97, dBm + 141 */
    uint8_t rsrq;  /**< +CESQ field 4: 0..34, (dB + 20) * 2 */
    int16_t sinr;  /**< +CPSI field 13, of the modem's own scale */
    int16_t cqi;   /**< *ZCQI field 0: 0..15, 3GPP TS 36.213 clause 7.2.3 */
} Tavrik_Signal;

/** Bands in use, of the modem's own numbering: fields 1 to 4 of its "*BAND" answer. */
typedef struct Tavrik_RfBandInfo {
    uint32_t band[4];
} Tavrik_RfBandInfo;

#define TAVRIK_REJECT_CAUSES 10

/** One reject cause that the modem noted: the first three fields of a "*REJCAUSE" line. */
typedef struct Tavrik_RejectCause {
    int32_t field[3];
} Tavrik_RejectCause;

/**
 * Opens the AT channel for the operations below; the same as Tavrik_AT_Init().
 *
 * @return 0; -1 when the AT command server cannot be reached.
 *
 * Blocks: as Tavrik_AT_Init(). In a callback: yes.
 */
TAVRIK_API int Tavrik_NW_Init(void);

/**
 * Reads whether the module is registered and attached (AT+CPSI?, then AT+CEREG? on LTE, else AT+CGREG?, then AT+CREG?
 * and AT+CGATT?).
 *
 * Standard: 3GPP TS 27.007 clauses 7.2, 10.1.9, 10.1.20, 10.1.22.
 *
 * @param[out] reg_state registration status 0 to 5 as the standard counts it; 4 (unknown) when it cannot be read.
 * @param[out] cs_state  circuit-switched: 1 registered, 2 not, 0 when the modem does not say.
 * @param[out] ps_state  packet-switched: 1 attached, 2 detached.
 * @return 0; -1 for a NULL pointer, and when "+CREG" or "+CGATT" cannot be read. Outputs before that are set.
 *
 * Blocks: four times as Tavrik_AT_Send() with 2 s. In a callback: yes. Before it: Tavrik_NW_Init().
 */
TAVRIK_API int Tavrik_NW_GetRegStatus(int *reg_state, int *cs_state, int *ps_state);

/**
 * Reads the signal (AT+CESQ, AT*ZCQI?, AT+CPSI?). A question that the modem does not answer leaves its values as they
 * were read before, whoever read them: they are kept for the whole process.
 *
 * Standard: 3GPP TS 27.007 clause 8.69.
 *
 * @param[out] signal     see Tavrik_Signal; unchanged on failure.
 * @param[out] technology TAVRIK_NW_GSM, TAVRIK_NW_WCDMA or TAVRIK_NW_LTE; unchanged on failure.
 * @return 0; -1 for a NULL pointer and without service.
 *
 * Blocks: three times as Tavrik_AT_Send() with 2 s. In a callback: yes. Before it: Tavrik_NW_Init().
 */
TAVRIK_API int Tavrik_NW_GetSignal(Tavrik_Signal *signal, int *technology);

/**
 * Binds the module to one cell (AT*CELL).
 *
 * @param technology 0 to 3, as the modem counts them.
 * @param frequency  channel number, not 0.
 * @param cell       physical cell id, not 0.
 * @return 0; -1 for a refused argument (nothing is sent) and when the command fails.
 *
 * Blocks: as Tavrik_AT_Send() with 3 s. In a callback: yes. Before it: Tavrik_NW_Init().
 */
TAVRIK_API int Tavrik_NW_CellLock(int technology, int frequency, int cell);

/**
 * Ends the binding to a cell (AT*CELL).
 *
 * @return 0; -1 when the command fails.
 *
 * Blocks: as Tavrik_AT_Send() with 3 s. In a callback: yes. Before it: Tavrik_NW_Init().
 */
TAVRIK_API int Tavrik_NW_ResetCellLock(void);

/**
 * Reads the bands in use (AT*BAND?).
 *
 * @param[out] bands all zeros when the modem answers without bands; unchanged when the command fails.
 * @return 0; -1 for NULL and when the command fails.
 *
 * Blocks: as Tavrik_AT_Send() with 2 s. In a callback: yes. Before it: Tavrik_NW_Init().
 */
TAVRIK_API int Tavrik_NW_GetRfBandInfo(Tavrik_RfBandInfo *bands);

/**
 * Sets the bands in use and keeps the network mode (AT*BAND? and AT*BAND).
 *
 * @param band1 fields 1 to 4 and 9 of the command, as the modem numbers them; the fields between stay empty.
 * @param band2 see `band1`.
 * @param band3 see `band1`.
 * @param band4 see `band1`.
 * @param last  see `band1`.
 * @return 0; -1 when the network mode cannot be read (nothing is set then) and when the command fails.
 *
 * Blocks: twice as Tavrik_AT_Send() with 2 s. In a callback: yes. Before it: Tavrik_NW_Init().
 */
TAVRIK_API int Tavrik_NW_SetRfBandInfo(uint32_t band1, uint32_t band2, uint32_t band3, uint32_t band4, uint32_t last);

/**
 * Reads the preferred network mode (AT*BAND?).
 *
 * @param[out] mode 1 to 5; 0 for a mode of the modem that has no number of its own here. Unchanged on failure.
 * @return 0; -1 for NULL, when the command fails, and for a mode outside the modem's 0 to 15.
 *
 * Blocks: as Tavrik_AT_Send() with 2 s. In a callback: yes. Before it: Tavrik_NW_Init().
 */
TAVRIK_API int Tavrik_NW_GetPreferredMode(int *mode);

/**
 * Sets the preferred network mode (AT*BAND? and AT*BAND). A mode that is set already is not set again.
 *
 * @param mode 1 to 5, the modem's modes 15, 5, 4, 1 and 0.
 * @return 0; -1 for another mode (nothing is sent) and when a command fails.
 *
 * Blocks: twice as Tavrik_AT_Send() with 2 s. In a callback: yes. Before it: Tavrik_NW_Init().
 */
TAVRIK_API int Tavrik_NW_SetPreferredMode(int mode);

/**
 * Reads whether the module is registered with the IMS, and so for VoLTE (AT+CIREG?).
 *
 * Standard: 3GPP TS 27.007 clause 8.71.
 *
 * @param[out] status registration as the modem gives it: 1 registered, 0 not, or not told. Unchanged on failure.
 * @return 0; -1 for NULL, when the command fails, and when its answer lacks the line.
 *
 * Blocks: as Tavrik_AT_Send() with 2 s. In a callback: yes. Before it: Tavrik_NW_Init().
 */
TAVRIK_API int Tavrik_NW_GetVolteStatus(int *status);

/**
 * Switches the modem's notes of reject causes (AT*REJCAUSE).
 *
 * @param on 0 off, anything else on.
 * @return 0; -1 when the command fails.
 *
 * Blocks: as Tavrik_AT_Send() with 2 s. In a callback: yes. Before it: Tavrik_NW_Init().
 */
TAVRIK_API int Tavrik_NW_RejectCauseSwitch(int on);

/**
 * Reads the reject causes that the modem noted (AT*REJCAUSE=2).
 *
 * Standard: causes of 3GPP TS 24.008 clause 10.5.3.6 and TS 24.301 clause 9.9.3.9.
 *
 * @param[out] causes of TAVRIK_REJECT_CAUSES entries; those beyond the result are untouched.
 * @return number of entries, 0 to 10; -1 for NULL and when the command fails.
 *
 * Blocks: as Tavrik_AT_Send() with 2 s. In a callback: yes. Before it: Tavrik_NW_Init().
 */
TAVRIK_API int Tavrik_NW_QueryRejectCause(Tavrik_RejectCause *causes);

/**
 * Switches the modem's report of its power indication (AT*POWERIND, 0 or 31).
 *
 * @param on 0 or 1.
 * @return 0; -1 for another value (nothing is sent) and when the command fails.
 *
 * Blocks: as Tavrik_AT_Send() with 2 s. In a callback: yes. Before it: Tavrik_NW_Init().
 */
TAVRIK_API int Tavrik_Set_POWERIND(int on);

/**
 * Register the application's callbacks for registration changes, and for cell and signal reports; the first one of each
 * stays until Tavrik_NW_Cb_Free(). The modem reports what it was told to: see AT+CREG and its like.
 *
 * @param callback gets each event on the indication thread.
 * @return 0; -1 when `callback` is NULL or the indication channel cannot be opened (the callback stays registered).
 *
 * Blocks: as tavrik_indication_register(). In a callback: yes.
 */
TAVRIK_API int Tavrik_NW_Cb_Reg(Tavrik_NwCb callback);
TAVRIK_API int Tavrik_NW_Cb_Reg_Ext(Tavrik_CellCb callback);

/**
 * Takes both callbacks back; as tavrik_indication_nwderegister().
 *
 * @return 0; -1 when the deregistration fails.
 *
 * Blocks: as tavrik_indication_nwderegister(). In a callback: yes.
 */
TAVRIK_API int Tavrik_NW_Cb_Free(void);

#ifndef TAVRIK_NO_SHORT_NAMES

/**
 * Reads the access technology (AT+CPSI?); on LTE it notes the SINR for Tavrik_NW_GetSignal().
 *
 * @return 2 LTE, 1 WCDMA, 0 GSM, -1 anything else and failure.
 *
 * Blocks: as Tavrik_AT_Send() with 2 s. In a callback: yes. Before it: Tavrik_NW_Init().
 */
TAVRIK_API int get_network_type(void);

/**
 * Read the registration status (AT+CEREG? and AT+CGREG?).
 *
 * Standard: 3GPP TS 27.007 clauses 10.1.22 and 10.1.20.
 *
 * @return the status as the modem gives it, 4 (unknown) on failure.
 *
 * Blocks: as Tavrik_AT_Send() with 2 s. In a callback: yes. Before it: Tavrik_NW_Init().
 */
TAVRIK_API int get_lte_reg_state(void);
TAVRIK_API int get_wcdma_or_gsm_reg_state(void);

/**
 * Read signal values (AT+CESQ and AT*ZCQI?) for the next Tavrik_NW_GetSignal().
 *
 * @return 0, whatever the modem answers.
 *
 * Blocks: as Tavrik_AT_Send() with 2 s. In a callback: yes. Before it: Tavrik_NW_Init().
 */
TAVRIK_API int get_signal_parameter(void);
TAVRIK_API int get_cqi_info(void);

/**
 * Reply handler of request 521, the packet-switched state, for requests of the application's own: checks a reply and
 * logs what is wrong with it.
 *
 * @param request not looked at, NULL allowed.
 * @param type    not looked at.
 * @param message the reply; NULL is logged as a reply that cannot be parsed.
 *
 * Blocks: never, but for the log. In a callback: it is one.
 */
TAVRIK_API void ps_state_request_cb(struct ubus_request *request, int type, struct blob_attr *message);

#endif

/* ---- Voice calls --------------------------------------------------------------------------------------------- */

/** State of a voice call. */
enum {
    TAVRIK_CALL_DIALLING = 1,
    TAVRIK_CALL_INCOMING = 2,
    TAVRIK_CALL_ACTIVE = 3,
    TAVRIK_CALL_ALERTING = 5,
    TAVRIK_CALL_HELD = 6,
    TAVRIK_CALL_WAITING = 7,
    TAVRIK_CALL_STATE_7 = 8, /**< the module's own state 7 */
    TAVRIK_CALL_ENDED = 9,
    TAVRIK_CALL_STATE_6 = 10 /**< the module's own state 6 */
};

/** One voice call. 44 bytes. */
typedef struct Tavrik_Call {
    int32_t call_id;   /**< from 1 */
    int32_t direction; /**< 1 mobile-originated, 2 mobile-terminated, 0 unknown */
    char number[32];   /**< of the other side; one of 32 characters has no terminating zero */
    int32_t state;     /**< TAVRIK_CALL_DIALLING and so on */
} Tavrik_Call;

#define TAVRIK_CALLS_MAX 11

/**
 * Voice calls. 508 bytes. An indication carries one: the call of a +CLCC line (3GPP TS 27.007 clause 7.18), or that of
 * a +CALLDISCONNECT line, ended, with direction 0 and no number.
 */
typedef struct Tavrik_CallList {
    int32_t count;
    Tavrik_Call calls[TAVRIK_CALLS_MAX];
    uint8_t reserved[20]; /**< 0 */
} Tavrik_CallList;

/**
 * Opens the AT channel and registers the callback for calls.
 *
 * @param callback as of TAVRIK_IND_VOICE; it runs on the indication thread.
 * @return 0; -1 when `callback` is NULL, the AT server cannot be reached, or as tavrik_ubus_init().
 *
 * Blocks: as Tavrik_AT_Init(), tavrik_indication_register() and tavrik_ubus_init(). In a callback: yes.
 */
TAVRIK_API int Tavrik_VoiceCall_Init(Tavrik_CallCb callback);

/**
 * Removes the callback for calls, as tavrik_indication_voicecallderegister(). The AT channel stays open.
 *
 * Blocks: as tavrik_indication_voicecallderegister(). In a callback: yes.
 */
TAVRIK_API void Tavrik_VoiceCall_Deinit(void);

/** Size of a buffer that holds the text of each cause. */
#define TAVRIK_FAIL_CAUSE_SIZE 41
/** The longest number that can be dialled, in characters. */
#define TAVRIK_DIAL_MAX 507

/**
 * Lists the current calls (ubus object "ril", method "ril_request", request 9).
 *
 * Standard: 3GPP TS 27.007 clause 7.18.
 *
 * @param[out] calls unchanged on failure. Of more than TAVRIK_CALLS_MAX calls the first ones, with an error in the log.
 *                   A call in a state that is not known has state 0.
 * @return 0, also without any call; -1 when `calls` is NULL, the request fails, or the reply is unusable.
 *
 * Blocks: 30 s. In a callback: yes.
 */
TAVRIK_API int Tavrik_VoiceCall_GetAllInfo(Tavrik_CallList *calls);

/**
 * Tells the state of one call (request 9, as Tavrik_VoiceCall_GetAllInfo()).
 *
 * @param call_id    1 or more.
 * @param[out] state TAVRIK_CALL_DIALLING and so on, 0 when it is not known; unchanged on failure.
 * @return 0; -1 for a refused argument, when the calls cannot be read, and without such a call.
 *
 * Blocks: 30 s. In a callback: yes.
 */
TAVRIK_API int Tavrik_VoiceCall_GetState(int call_id, int *state);

/**
 * Dials (ATD), when there is no call yet. The call's further way is told by events.
 *
 * Standard: 3GPP TS 27.007 clause 6.2.
 *
 * @param number       as the modem takes it, at most TAVRIK_DIAL_MAX characters, without line ends.
 * @param[out] call_id 1, the id of a first call; unchanged on failure.
 * @return 0 when the modem has taken the number; -1 for a refused argument (nothing is sent), when the calls cannot be
 *         read, while there is a call, and when the command fails.
 *
 * Blocks: 30 s, and as Tavrik_AT_Send() with 3 s. In a callback: yes. Before it: Tavrik_VoiceCall_Init() or
 * Tavrik_AT_Init().
 */
TAVRIK_API int Tavrik_VoiceCall_Start(const char *number, int *call_id);

/**
 * Answers an incoming call (request 40). The request names no call: with a second one the modem chooses.
 *
 * Standard: ITU-T V.250 clause 6.3.5 (what ATA does).
 *
 * @param call_id 1 or more: of a call in state TAVRIK_CALL_INCOMING.
 * @return 0 when the request has reached the radio interface layer, whatever comes of it: the event of the call tells;
 *         -1 for a refused argument, when the calls cannot be read, without such a call, and when the request fails.
 *
 * Blocks: 35 s. In a callback: yes.
 */
TAVRIK_API int Tavrik_VoiceCall_Answer(int call_id);

/**
 * Ends all calls (AT+CHLD=19), whichever is named.
 *
 * Standard: 3GPP TS 27.007 clause 7.13.
 *
 * @param call_id 1 or more: of a call in any state but TAVRIK_CALL_ENDED.
 * @return 0; -1 for a refused argument, when the calls cannot be read, without such a call, and when the command fails.
 *
 * Blocks: 30 s, and as Tavrik_AT_Send() with 3 s. In a callback: yes. Before it: as Tavrik_VoiceCall_Start().
 */
TAVRIK_API int Tavrik_VoiceCall_End(int call_id);

/**
 * Sends one tone to the other side (request 24).
 *
 * Standard: 3GPP TS 27.007 clause C.2.11, TS 23.014.
 *
 * @param tone one of "0123456789*#ABCD".
 * @return 0 when the radio interface layer has taken the request; -1 when the calls cannot be read, without any call,
 *         for any other character (request 24 is not sent then), and when the request fails.
 *
 * Blocks: 40 s. In a callback: yes.
 */
TAVRIK_API int Tavrik_SendDtmf(char tone);

/**
 * Tells why the last call failed or ended (request 18).
 *
 * Standard: 3GPP TS 24.008 clause 10.5.4.11 and annex H; above 127 the modem's own.
 *
 * @param[out] cause the number, whatever it is.
 * @param[out] text  of TAVRIK_FAIL_CAUSE_SIZE bytes, or NULL: number and text, as "17 User busy"; "127 Interworking:
 *                   unspecified" for a number without a text of its own. Both are unchanged on failure.
 * @return 0; -1 when `cause` is NULL, the request fails, or the reply is unusable.
 *
 * Blocks: 10 s. In a callback: yes.
 */
TAVRIK_API int Tavrik_GetCallFailCause(unsigned *cause, char *text);

/**
 * Placeholders for holding and joining calls: they do nothing.
 *
 * @return 0.
 *
 * Blocks: never. In a callback: yes.
 */
TAVRIK_API int Tavrik_VoiceCall_Hold(void);
TAVRIK_API int Tavrik_VoiceCall_MultiProcess(void);

#ifndef TAVRIK_NO_SHORT_NAMES

/**
 * Asks for the current calls (request 9), logs what is wrong with the reply, and hands nothing out: each operation
 * above keeps what it reads for itself.
 *
 * @return 0; -1 when the request fails or the reply is unusable.
 *
 * Blocks: 30 s. In a callback: yes.
 */
TAVRIK_API int get_call_info_msg(void);

/**
 * Reply handler of request 9, for requests of the application's own: checks a reply and logs what is wrong with it.
 *
 * @param request not looked at, NULL allowed.
 * @param type    not looked at.
 * @param message the reply; NULL is logged as a reply that cannot be parsed.
 *
 * Blocks: never, but for the log. In a callback: it is one.
 */
TAVRIK_API void call_info_cb(struct ubus_request *request, int type, struct blob_attr *message);

/**
 * Logs when a call's state, as the radio interface layer counts it, is not known.
 *
 * @param index     of the call in a list, 0 to 10; any other is logged too.
 * @param ril_state 0 to 8 are known.
 *
 * Blocks: never, but for the log. In a callback: yes.
 */
TAVRIK_API void get_call_state(int index, int ril_state);

#endif

/* ---- eCall --------------------------------------------------------------------------------------------------- */

/* Emergency calls from a vehicle (3GPP TS 26.267, TS 22.101 clause 10.7; EN 15722, EN 16062). The modem holds the call,
 * its timers and the data; the library keeps no state of an eCall. */

#define TAVRIK_ECALL_MSD_MAX 140
#define TAVRIK_ECALL_NUMBER_SIZE 32

/** What kind of call: any other value than this is an emergency call. */
enum { TAVRIK_ECALL_TEST = 1 };

/** An eCall to make. 184 bytes. */
typedef struct Tavrik_EcallReq {
    int32_t msd_len;                            /**< bytes of `msd`, 0 to TAVRIK_ECALL_MSD_MAX */
    uint8_t msd[TAVRIK_ECALL_MSD_MAX];          /**< minimum set of data, as EN 15722 encodes it */
    int32_t call_type;                          /**< TAVRIK_ECALL_TEST, or anything else for an emergency call */
    int32_t auto_trigger;                       /**< of an emergency call: 0 started by hand, else automatically */
    char test_number[TAVRIK_ECALL_NUMBER_SIZE]; /**< a test call dials it */
} Tavrik_EcallReq;

/**
 * eCall settings of the modem, in its own units. 92 bytes. Each is a pair: a value, which counts only when the flag in
 * front of it is exactly 1.
 */
typedef struct Tavrik_EcallConfig {
    uint8_t ecallonly_valid;
    uint8_t ecallonly; /**< 1 eCall only, any other value not (AT*ECALLONLY) */
    uint8_t mode_valid;
    uint32_t mode; /**< 1 ERA-GLONASS, any other value EU (AT*ECALLMODE) */
    uint8_t t2_valid;
    uint32_t t2; /**< T2, end of the call at the latest (AT*ECALLTIMER=cleardown) */
    uint8_t t5_valid;
    uint16_t t5; /**< T5, wait for the request of the data (AT*ECALLDATA=5,1) */
    uint8_t t6_valid;
    uint16_t t6; /**< T6, wait for the application's acknowledgement (AT*ECALLDATA=5,2) */
    uint8_t t7_valid;
    uint16_t t7; /**< T7, transmission of the data (AT*ECALLDATA=5,3) */
    uint8_t t9_valid;
    uint32_t t9; /**< T9, in which the centre may call back (AT*ECALLTIMER=callback) */
    uint8_t t10_valid;
    uint32_t t10; /**< T10, after which the module leaves the network (AT*ECALLTIMER=dereg) */
    uint8_t dial_valid;
    uint32_t dial; /**< setting up of the call (AT*ECALLTIMER=dial) */
    uint8_t redialcnt_valid;
    uint32_t redialcnt; /**< how often it is dialled again (AT*ECALLTIMER=redialcnt) */
    uint8_t smsmsdcnt_valid;
    uint32_t smsmsdcnt;  /**< how often the data are sent again by SMS (AT*ECALLTIMER=smsmsdcnt) */
    uint8_t reserved[8]; /**< not read */
    uint8_t redialtmr_valid;
    uint16_t redialtmr; /**< time between two dialings (AT*ECALLTIMER=redialtmr) */
    uint8_t sms_valid;
    uint16_t sms; /**< time between two messages (AT*ECALLTIMER=sms) */
    uint8_t smsnum_valid;
    uint32_t smsnum; /**< number that gets the data by SMS (AT*ECALLSMSNUM) */
} Tavrik_EcallConfig;

/**
 * Prepares for eCall events: opens the AT channel (Tavrik_AT_Init()), registers the callback, and initialises uloop
 * (tavrik_ubus_init()). The first callback stays until Tavrik_Ecall_Deinit(). The operations below need the AT channel
 * alone.
 *
 * @param callback gets each event on the indication thread.
 * @return 0; -1 when `callback` is NULL, and with the first step that fails; what was done before it stays.
 *
 * Blocks: as the three steps, 9 s. In a callback: yes.
 */
TAVRIK_API int Tavrik_Ecall_Init(Tavrik_EcallCb callback);

/**
 * Takes the callback for eCall events back, as tavrik_indication_ecallderegister(). The AT channel stays open.
 *
 * Blocks: as tavrik_indication_ecallderegister(). In a callback: yes.
 */
TAVRIK_API void Tavrik_Ecall_Deinit(void);

/**
 * Hands the modem the data (AT*ECALLMSD) and starts an eCall: by hand (AT+CECALL=2), automatically (AT+CECALL=3), or a
 * test call (AT*ECALLONLY with the present setting and the test number, then AT+CECALL=0). The present setting comes
 * from the module's program "serial_atcmd"; when that tells nothing within 3 s the field stays empty. The data are
 * logged at level error.
 *
 * **A test call ends the process** with exit status 1 when no shell can be started for that program.
 *
 * Standard: 3GPP TS 27.007 clause 6.27; EN 16062.
 *
 * @param request `test_number` as the modem takes it; a zero byte may be missing at its full length.
 * @return 0 when the modem has taken the commands, the call's further way is told by events; -1 when `request` is NULL
 *         or its `msd_len` out of range (nothing is sent), and with the first command that fails.
 *
 * Blocks: twice as Tavrik_AT_Send() with 3 s; a test call three times and 3 s. In a callback: yes. Before it:
 * Tavrik_Ecall_Init() or Tavrik_AT_Init().
 */
TAVRIK_API int Tavrik_Ecall_Start(const Tavrik_EcallReq *request);

/**
 * Ends the eCall (AT+CECALL=5).
 *
 * @return 0; -1 when the command fails.
 *
 * Blocks: as Tavrik_AT_Send() with 3 s. In a callback: yes. Before it: as Tavrik_Ecall_Start().
 */
TAVRIK_API int Tavrik_Ecall_End(void);

/**
 * Hands the modem other data (AT*ECALLMSD).
 *
 * @param request its first two members are read.
 * @return 0; -1 when `request` is NULL or its `msd_len` out of range (nothing is sent), and when the command fails.
 *
 * Blocks: as Tavrik_AT_Send() with 3 s. In a callback: yes. Before it: as Tavrik_Ecall_Start().
 */
TAVRIK_API int Tavrik_Ecall_UpdateMSD(const Tavrik_EcallReq *request);

/**
 * Has the modem send the data (again) during the call (AT*ECALLPUSH).
 *
 * @return 0; -1 when the command fails.
 *
 * Blocks: as Tavrik_AT_Send() with 3 s. In a callback: yes. Before it: as Tavrik_Ecall_Start().
 */
TAVRIK_API int Tavrik_Ecall_PushMSD(void);

/**
 * Take the module out of the network, and into it again, as eCall-only operation wants it (AT*ECALLREG=0,
 * AT*ECALLREG=1).
 *
 * @return 0; -1 when the command fails.
 *
 * Blocks: as Tavrik_AT_Send() with 3 s. In a callback: yes. Before it: as Tavrik_Ecall_Start().
 */
TAVRIK_API int Tavrik_Ecall_DeregisterNetwork(void);
TAVRIK_API int Tavrik_Ecall_RegisterNetwork(void);

/**
 * Makes eCall settings of the modem, one command each, in this order: ecallonly, mode, t2, t5, t6, t7, t9, t10,
 * redialcnt, smsmsdcnt, redialtmr, sms, dial, smsnum. One that fails is logged, and the next one made all the same.
 *
 * @param config the settings; those whose flag is not 1 are left alone.
 *
 * Blocks: as Tavrik_AT_Send() with 3 s for each setting. In a callback: yes. Before it: as Tavrik_Ecall_Start().
 */
TAVRIK_API void Tavrik_Ecall_Set_Config_Info(Tavrik_EcallConfig config);

/**
 * Tells why the last call failed or ended (request 18), as Tavrik_GetCallFailCause() does, save for what it returns.
 *
 * @param[out] cause the number. **Preset it**: an unusable reply leaves it alone, and the result is 0 all the same.
 * @param[out] text  of TAVRIK_FAIL_CAUSE_SIZE bytes, or NULL; unchanged when `cause` is.
 * @return 0 when there was a reply; -1 when `cause` is NULL or the request fails.
 *
 * Blocks: 10 s. In a callback: yes.
 */
TAVRIK_API int Tavrik_GetEcallFailCause(int *cause, char *text);

/* ---- Data calls ---------------------------------------------------------------------------------------------- */

/** A data profile's context, as the application has started it. */
typedef struct Tavrik_IdxCid {
    int32_t cid;       /**< context identifier, 0 when none */
    uint8_t reconnect; /**< 0 */
} Tavrik_IdxCid;

#define TAVRIK_IDX_CID_COUNT 15

/** The contexts of the profiles 0 to 14. The library writes them one by one; they are only to be read. */
extern TAVRIK_API Tavrik_IdxCid g_idx_cid[TAVRIK_IDX_CID_COUNT];

#define TAVRIK_DATA_TEXT_SIZE 64

/** Parameters of a packet data context, stored under an index in the uci package data_profile. 204 bytes. */
typedef struct Tavrik_DataProfile {
    uint8_t profile_idx;                  /**< 0 to 15 */
    uint32_t pdp_type;                    /**< 0 and 1 IPv4, 2 IPv6, 3 both */
    char apn[TAVRIK_DATA_TEXT_SIZE];      /**< access point name (3GPP TS 23.003 clause 9) */
    uint32_t auth_type;                   /**< 0 to 3; stored, and used by no command */
    char usr_name[TAVRIK_DATA_TEXT_SIZE]; /**< stored, and used by no command */
    char password[TAVRIK_DATA_TEXT_SIZE]; /**< stored as it is, in a file that root alone may read */
} Tavrik_DataProfile;

/**
 * Stores a profile: five options of the section named by its index, which is made if there is none. It is on the disk
 * when this returns 0. An empty text deletes its option.
 *
 * @param profile the profile. Texts end within their fields; of one that does not, the first 63 bytes count.
 * @return 0; -1 when an index or number is out of range, a text has a control byte other than TAB, LF and CR, the
 *         file is missing (Tavrik_DataCall_Init() makes it) or cannot be written: it is as it was then, save that a
 *         new index may leave its section without options. So for index 0 when a section without a number for a name
 *         stands in its place.
 *
 * Blocks: as long as the disk; 10 s while others keep the file locked, 15 s for a new index. In a callback: yes.
 */
TAVRIK_API int Tavrik_DataCall_SetProfile(const Tavrik_DataProfile *profile);

/**
 * Reads a profile. **Clear the record first**: an option that is missing leaves its field alone.
 *
 * @param profile_idx 0 to 15.
 * @param[out] profile the profile; all of it 0, save the index, when there is none. Texts are cut to 63 bytes.
 * @return 0, whether there is one or not; -1 when `profile` is NULL or the file cannot be read.
 *
 * Blocks: as long as the disk; 5 s while others keep the file locked. In a callback: yes.
 */
TAVRIK_API int Tavrik_DataCall_GetProfile(int profile_idx, Tavrik_DataProfile *profile);

/**
 * Deletes a profile. A context that it was started with stays.
 *
 * @param profile_idx 0 to 15.
 * @return 0, whether there was one or not; -1 when the file cannot be read or written: it is as it was then.
 *
 * Blocks: as Tavrik_DataCall_SetProfile(). In a callback: yes.
 */
TAVRIK_API int Tavrik_DataCall_DeleteProfile(int profile_idx);

/**
 * Asks the modem which contexts are defined (AT+CGCONTRDP=?, 3GPP TS 27.007 clause 10.1.23) and marks them in
 * g_idx_cid; others stay as they are. Of a range its first number counts. Tavrik_DataCall_Init() does it.
 *
 * Blocks: as Tavrik_AT_Send() with 2 s. In a callback: yes. Before it: Tavrik_AT_Init().
 */
TAVRIK_API void Tavrik_profile_idx_cid_Init(void);

#ifndef TAVRIK_NO_SHORT_NAMES

struct uci_context;

/**
 * The address family that a PDP type stands for (3GPP TS 27.007 clause 10.1.1).
 *
 * @param type "IP", "IPV6" or "IPV4V6" in whatever case; may be NULL.
 * @return 4, 6 or 10; 0 for any other text.
 *
 * Blocks: never. In a callback: yes.
 */
TAVRIK_API int data_convert_ip_proto(const char *type);

/**
 * Sets one element of the uci store in memory, as uci_set() of libuci does; nothing is written before the commit. An
 * empty value deletes the option.
 *
 * @param context a context of libuci, which the caller owns and no other thread uses.
 * @param package the package's name.
 * @param section the section's name; it exists when an option is set.
 * @param option  the option's name, or NULL for the section itself, whose type is `value` then.
 * @param value   the value.
 * @return 0; -1 when another pointer is NULL or the store is locked for 5 s, otherwise the positive error of libuci.
 *
 * Blocks: 5 s while the library uses the store elsewhere. In a callback: yes.
 */
TAVRIK_API int set_uci_element(struct uci_context *context, const char *package, const char *section,
                               const char *option, const char *value);

#endif

/** A data call to start. 2 bytes. */
typedef struct Tavrik_DataCallReq {
    uint8_t profile_idx; /**< 0 to 15 */
    uint8_t reconnect;   /**< 0: the library does not make a lost call again by itself */
} Tavrik_DataCallReq;

/** 1 between Tavrik_DataCall_Init() and Tavrik_DataCall_Destroy(), else 0. Only to be read. */
extern TAVRIK_API uint8_t g_datacll_init_flag;

/** Reserved; 0. Indications of data calls come on the thread of all indications. */
extern TAVRIK_API uint32_t g_datacall_ind_thread_id;

/**
 * Prepares for data calls: initialises uloop (tavrik_ubus_init()) and the AT channel (Tavrik_AT_Init()), makes the
 * files "/etc/config/data_profile" (for root alone) and "/etc/stat/data_statistics" where they are missing, removes
 * what a writer that was killed has left beside them, marks the contexts that the modem has (see
 * Tavrik_profile_idx_cid_Init()), sets their counters in the statistics file to 0, and registers the callback.
 *
 * @param callback gets each event of a data call on the indication thread; NULL for none.
 * @return 0, also when it was done before: then uloop and the AT channel alone are looked after. -1 with the first step
 *         that fails; what was done before it stays.
 *
 * Blocks: 7 s for uloop and the two sockets, as Tavrik_profile_idx_cid_Init(), and as Tavrik_DataCall_SetProfile(). In
 * a callback: yes.
 */
TAVRIK_API int Tavrik_DataCall_Init(Tavrik_DataCb callback);

/**
 * Takes the callback back, as tavrik_indication_datacallderegister(), and clears g_idx_cid. Contexts stay up, and the
 * AT channel stays open.
 *
 * @return 0; -1 without Tavrik_DataCall_Init().
 *
 * Blocks: as tavrik_indication_datacallderegister(). In a callback: yes.
 */
TAVRIK_API int Tavrik_DataCall_Destroy(void);

/**
 * Defines the context of a stored profile and activates it: AT*ZGDCONT, then AT+ZGACT (compare 3GPP TS 27.007 clauses
 * 10.1.1 and 10.1.10). Profile i has context i + 1 and the network interface "ccinet" followed by i, which the module
 * configures. Of the profile its PDP type and APN are used; the modem authenticates with settings of its own. The
 * profile is logged with its password at level debug.
 *
 * @param request the profile. One that is up already is defined and activated again.
 * @param[out] error 1 when the index is above 15, `reconnect` is not 0, or there is no such profile; else unchanged.
 * @return 0 when the modem has activated it; -1 in these cases, when a pointer is NULL or the profiles cannot be read,
 *         when the APN has a quote or a control byte (nothing is sent), and when a command fails. After a refused
 *         activation the context stays defined.
 *
 * Blocks: twice as Tavrik_AT_Send() with 2 s; 5 s while others keep the profiles locked. In a callback: yes. Before
 * it: Tavrik_DataCall_Init() or Tavrik_AT_Init().
 */
TAVRIK_API int Tavrik_DataCall_Start(const Tavrik_DataCallReq *request, int *error);

/**
 * Deactivates the context of a profile and takes its definition away: AT+ZGACT, then AT*ZGDCONT. Whether it is up is
 * not looked at.
 *
 * @param profile_idx 0 to 15.
 * @param[out] error 1 when the index is above 15; else unchanged.
 * @return 0 when the modem has deactivated it; -1 when the index is above 15, `error` is NULL or the command fails.
 *
 * Blocks: twice as Tavrik_AT_Send() with 2 s. In a callback: yes. Before it: as Tavrik_DataCall_Start().
 */
TAVRIK_API int Tavrik_DataCall_Stop(unsigned profile_idx, int *error);

/** A data call's addresses, as its network interface is configured. 128 bytes. Numbers marked so in network order. */
typedef struct Tavrik_DataCallInfo {
    uint8_t cid;            /**< context identifier, 1 to 15; the interface is "ccinet" followed by cid - 1 */
    uint8_t reserved0[3];   /**< not read */
    uint32_t reserved1[2];  /**< not read */
    char ifname[16];        /**< network interface */
    int32_t ip_type;        /**< 4 IPv4, 6 IPv6, 10 both */
    uint32_t ipv4_addr;     /**< network order */
    uint32_t ipv4_netmask;  /**< network order, as reported; the interface gets one that the gateway suggests */
    uint32_t ipv4_gateway;  /**< network order; 0 for the address itself */
    uint8_t netmask_end[4]; /**< the last one ends the mask 255.255.255.x; 0 as a rule */
    uint32_t ipv4_dns1;     /**< network order */
    uint32_t ipv4_dns2;     /**< network order */
    uint8_t ipv6_addr[16];
    uint32_t reserved2; /**< not read */
    uint8_t ipv6_gateway[16];
    uint32_t reserved3; /**< not read */
    uint8_t ipv6_dns1[16];
    uint8_t ipv6_dns2[16];
} Tavrik_DataCallInfo;

#define TAVRIK_PDP_TEXT_SIZE 176
#define TAVRIK_IP_TEXT_SIZE 46

/** What a modem tells of a context's addresses. Each text may hold several, with a blank between. 704 bytes. */
typedef struct Tavrik_PdpText {
    char addr[TAVRIK_PDP_TEXT_SIZE];    /**< of the interface */
    char gateway[TAVRIK_PDP_TEXT_SIZE]; /**< of the next hop */
    char dns[TAVRIK_PDP_TEXT_SIZE];     /**< of the name servers, the first one first */
    char submask[TAVRIK_PDP_TEXT_SIZE]; /**< subnet mask, IPv4 alone */
} Tavrik_PdpText;

#ifndef TAVRIK_NO_SHORT_NAMES

/**
 * Reply handlers for requests of the application's own, to tavrik_ubus_invoke() and the like.
 *
 * DataCall_Init_cb, of the list of data calls (request 57): each profile whose APN is contained in that of a call is
 * marked in g_idx_cid with the context of that call.
 *
 * DataCall_Start_cb, of the set-up of a data call (request 596): `request->priv` points at one byte, the profile's
 * index; it becomes 255 when the reply is unusable or the call was not set up. A call that was is configured as
 * data_config_ip_info() does, gets its counters in "/etc/stat/data_statistics" if it has none, and is marked.
 *
 * DataCall_Stop_cb only logs.
 *
 * @param request of DataCall_Start_cb, with its `priv`; the others do not look at it.
 * @param type    not looked at.
 * @param message the reply, whatever it holds, or NULL.
 *
 * Block: DataCall_Init_cb 5 s while others keep the profiles locked; DataCall_Start_cb as data_config_ip_info() and
 * as Tavrik_DataCall_SetProfile(). In a callback: they are one; on the loop thread other asynchronous requests wait
 * meanwhile. Not between tavrik_ubus_lock() and tavrik_ubus_unlock().
 */
TAVRIK_API void DataCall_Init_cb(struct ubus_request *request, int type, struct blob_attr *message);
TAVRIK_API void DataCall_Start_cb(struct ubus_request *request, int type, struct blob_attr *message);
TAVRIK_API void DataCall_Stop_cb(struct ubus_request *request, int type, struct blob_attr *message);

/**
 * Takes one kind of address out of its text into a record. Each address goes to the next free member of its own
 * family, as far as `info->ip_type` (4, 6, 10) has that family; what is no address is passed over.
 *
 * @param[in,out] info  its `ip_type` is read; members for which there is no address stay.
 * @param[in]     texts a zero byte may be missing at a text's full size.
 * @param[in]     key   "addr", "gateway", "dns" or "submask" (IPv4 alone); with any other nothing is done.
 * @return 0; -1 when a pointer is NULL.
 *
 * Blocks: never. In a callback: yes.
 */
TAVRIK_API int data_configure_pdp_info(Tavrik_DataCallInfo *info, const Tavrik_PdpText *texts, const char *key);

/**
 * Configures the network for a context: data_config_network_info(), data_config_dhcp_info(), data_reload_network(),
 * 200 ms later "lan" down and up (data_up_down_br_lan()), 100 ms later "wan" of the context up, and 200 ms after that
 * "wan6" for ip_type 6 and 10 (data_send_if_command(), tried again three times, 200 ms apart). A step that fails is
 * logged, and the next one done.
 *
 * @param info     the context; with a `cid` other than 1 to 15 nothing is done.
 * @param dedicate 1; with any other value nothing is done.
 *
 * Blocks: as the steps, half a second when all goes well. In a callback: yes.
 */
TAVRIK_API void data_config_ip_info(Tavrik_DataCallInfo info, int dedicate);

/**
 * Writes a context into the uci package "network": section "wan" followed by cid - 1 gets proto, auto, dedicate,
 * ipaddr, gateway, netmask, dns and ip6addr, as far as the ip_type has them, "wan6" followed by cid - 1 gets auto for
 * ip_type 6 and 10. A section that is missing is not made. The mask is not the reported one: with c and d for the
 * gateway's last two octets, 255.0.0.0 when both are 0 or both are 255, 255.255.0.0 when only d is 0 or 255, else
 * 255.255.255.x of `netmask_end`. The gateway 0.0.0.0 stands for the address. The dns entries for ip_type 6 and 10 are
 * the 16 bytes from `ipv4_dns1` and those from `ipv4_dns2` on, as programs on the module expect it.
 *
 * @param info     the context; with a `cid` other than 1 to 15 nothing is written.
 * @param dedicate value of the option of this name.
 *
 * Blocks: as Tavrik_DataCall_SetProfile(). In a callback: yes.
 */
TAVRIK_API void data_config_network_info(Tavrik_DataCallInfo info, int dedicate);

/**
 * Writes a context into the uci package "dhcp": section "wan" followed by cid - 1, if there is one, gets master 1, ra
 * relay and ndp relay.
 *
 * @param info its `cid` is read; with another than 1 to 15 nothing is written.
 * @param flag not looked at.
 *
 * Blocks: as Tavrik_DataCall_SetProfile(). In a callback: yes.
 */
TAVRIK_API void data_config_dhcp_info(Tavrik_DataCallInfo info, int flag);

/**
 * Takes out what data_config_network_info() and data_config_dhcp_info() have written for a context, the options
 * without their sections, and has the network service reload.
 *
 * @param cid 1 to 15.
 * @return 0; -1 for any other `cid`, when a package cannot be read or written, and as data_reload_network(). What can
 *         be done is done all the same.
 *
 * Blocks: as the two and data_reload_network(). In a callback: yes.
 */
TAVRIK_API int data_delete_ip_info(int cid);

/**
 * Has the network service reload its configuration: method "reload" of the ubus object "network". Its answer is only
 * logged; after 60 s nobody waits for it any more.
 *
 * @return 0 when it was asked; -1 when the bus, the object or the loop thread cannot be had.
 *
 * Blocks: 5 s. In a callback: yes.
 */
TAVRIK_API int data_reload_network(void);

/**
 * Takes an interface of the network service down, and up again: methods "down" and "up" of the ubus object
 * "network.interface". The second is tried whatever became of the first.
 *
 * @param mode   0 down, 1 down and up.
 * @param ifname name of the interface as the service knows it, such as "lan".
 * @return 0; -1 for another mode, for NULL, without memory and when the bus cannot be reached; else the first failure
 *         as libubus counts it (UBUS_STATUS_NOT_FOUND and so on).
 *
 * Blocks: 5 s for each method, and 5 s before. In a callback: yes.
 */
TAVRIK_API int data_up_down_br_lan(int mode, const char *ifname);

/**
 * Takes a context's interface down, or down and up, in the network service ("wan" or "wan6" followed by the index),
 * when there is a "ccinet" interface in the output of ifconfig. The service's answers are only logged; after 60 s
 * nobody waits for them any more. Up ends with the kernel's interface: "ifconfig ccinetINDEX up".
 *
 * @param index   0 to 14, the context's cid - 1.
 * @param up      0 down, any other value down and up.
 * @param ip_type 4 for wan, 6 for wan6.
 * @return 0; -1 for another index or type, and when no interface has a name with "ccinet"; -2 without memory, a loop
 *         thread, or the bus; -3 without the service; -4 when it cannot be asked.
 *
 * Blocks: 5 s for the bus, and as long as ifconfig. In a callback: yes.
 */
TAVRIK_API int data_send_if_command(int index, int up, int ip_type);

/**
 * Completion handlers of the requests above, which log how a request ended.
 *
 * @param request not looked at.
 * @param result  0, or a failure as libubus counts it.
 *
 * Block: never, but for the log. In a callback: they are one.
 */
TAVRIK_API void data_ifupdown_complete(struct ubus_request *request, int result);
TAVRIK_API void dc_reload_network_complete(struct ubus_request *request, int result);

/**
 * The global IPv6 address of a network interface ("/proc/net/if_inet6"), the first one when there are several.
 *
 * @param ifname name of the interface.
 * @param[out] out eight groups of four hexadecimal digits with ":" between them, cut to `size` bytes.
 * @param size of `out`; TAVRIK_IP_TEXT_SIZE (46) is enough.
 * @return 0; -1 without such an address, when a pointer is NULL or `size` is not positive.
 *
 * Blocks: never, but for the log. In a callback: yes.
 */
TAVRIK_API int data_get_interface_addr6(const char *ifname, char *out, int size);

/**
 * Counts a character.
 *
 * @param text      the text.
 * @param character the character, other than 0.
 * @return how often it occurs; -1 when `text` is NULL.
 *
 * Blocks: never. In a callback: yes.
 */
TAVRIK_API int data_charCountInStr(const char *text, char character);

/**
 * Turns an address as a modem writes it (3GPP TS 27.007 clause 10.1.23) into its usual text.
 *
 * @param dotted 4 numbers of 0 to 255 with "." between them (IPv4) or 16 (IPv6); of 8 and 32, an address and its mask,
 *               the first half.
 * @param[out] out of TAVRIK_IP_TEXT_SIZE bytes.
 * @return 0; -1 for any other text, and when a pointer is NULL: `out` is unchanged then.
 *
 * Blocks: never. In a callback: yes.
 */
TAVRIK_API int data_convertDotNotation2IpString(const char *dotted, char *out);

#endif

/* ---- SMS ----------------------------------------------------------------------------------------------------- */

#define TAVRIK_SMS_NUMBER_SIZE 50
#define TAVRIK_SMS_TEXT_SIZE 256

/** Coding of a received message. */
enum {
    TAVRIK_SMS_7BIT = 0, /**< GSM 7-bit default alphabet */
    TAVRIK_SMS_8BIT = 1, /**< 8-bit data */
    TAVRIK_SMS_UCS2 = 2
};

/** A short message, received or to be sent. */
typedef struct SmsMessage {
    uint8_t concat;       /**< 1 when the message is part of a longer one */
    uint8_t concat_ref;   /**< reference that the parts share, the low 8 bits of a 16-bit one */
    uint8_t concat_seq;   /**< number of this part */
    uint8_t concat_total; /**< number of parts */
    int32_t encoding;     /**< TAVRIK_SMS_7BIT, _8BIT or _UCS2 */
    /** Sender, or where to send to. One of 50 characters and more is cut and has no terminating zero. */
    char number[TAVRIK_SMS_NUMBER_SIZE];
    /** UTF-8. A received one of 256 bytes and more is cut and has no terminating zero. */
    char text[TAVRIK_SMS_TEXT_SIZE];
    /** Bytes of the text. More than 256 when a received one was cut: use the smaller of both. */
    int32_t length;
    int32_t result; /**< what the modem answered to a send */
} SmsMessage;

/**
 * Registers the SMS callback: for incoming messages (event 0), and for results of sends (event 1, with a record of
 * which `result` alone is set and that is the library's). While it is registered another call keeps the callback it
 * has.
 *
 * @param callback as of TAVRIK_IND_SMS. Incoming messages reach it on the indication thread, results as the sends say.
 * @return 0; -1 when `callback` is NULL, the AT server cannot be reached, or as tavrik_ubus_init(). The callback may be
 *         registered all the same then, see tavrik_indication_register(), and the next call tries again.
 *
 * Blocks: 2 s while the AT server accepts nobody, and as tavrik_ubus_init(). In a callback: yes.
 */
TAVRIK_API int Tavrik_SMS_Init(Tavrik_SmsCb callback);

/**
 * Removes the SMS callback for incoming messages, as tavrik_indication_smsderegister(). Results of sends still go to
 * it, unless it was the last registration of all families: then everything is removed.
 *
 * Blocks: 2 s while the callback runs on another thread, and the last one as tavrik_ubus_deinit(). In a callback: yes.
 */
TAVRIK_API void Tavrik_SMS_Deinit(void);

/**
 * Gives the incoming message, as the modem delivered it, for Tavrik_SMS_Decode().
 *
 * @param[out] pdu hexadecimal text with a terminating zero; unchanged on failure.
 * @param size     of `pdu`; 512 is enough for all.
 * @return 0; -1 outside of an SMS callback with event 0, and when `pdu` is NULL or too small.
 *
 * Blocks: never. In a callback: only there.
 */
TAVRIK_API int Tavrik_SMS_CurrentPdu(char *pdu, size_t size);

/*
 * Sending: the ubus object "sms" with its methods "sms.send" and "sms.send_pdu" (3GPP TS 23.040). Whatever number the
 * service answers ("resp") is the result; 0 is success by custom. None of these needs Tavrik_SMS_Init(). A send that
 * has failed may have gone out all the same when only the answer was lost.
 */

/**
 * Sends a text and waits for the service's answer. The SMS callback, if there is one, gets the result too (event 1),
 * before the call returns and on the same thread; a callback may send.
 *
 * @param message `number`, `text` and `length`, the length of the text in bytes: 1 to 160 of ASCII, otherwise at most
 *                210 where an ASCII character counts 3 (70 characters). In UTF-8; what is not UTF-8 ends the text.
 * @return the answer; -1 when an argument is wrong, the service cannot be reached, or no answer came within 10 s.
 *
 * Blocks: 10 s. In a callback: yes.
 */
TAVRIK_API int Tavrik_SMS_SendMsg(const SmsMessage *message);

/**
 * Sends a message that is encoded already, and waits for the answer. Otherwise as Tavrik_SMS_SendMsg().
 *
 * @param pdu hexadecimal text of an SMS-SUBMIT as the service wants it; passed on unchanged and not looked at.
 * @return the answer; -1 when `pdu` is NULL, the service cannot be reached, or no answer came within 25 s.
 *
 * Blocks: 25 s. In a callback: yes.
 */
TAVRIK_API int Tavrik_SMS_SendPdu(const char *pdu);

/**
 * Sends a text without waiting for the answer. The result goes to the SMS callback (event 1), on the loop thread. A
 * send without an answer after 60 s, or under way when the library is stopped, ends with an error line in the log
 * alone; use Tavrik_SMS_SendMsg_AsyncEx() to hear of that, and which send it was.
 *
 * @param message as of Tavrik_SMS_SendMsg(); not used any more after the call.
 * @return 0 when it is under way; -1 when an argument is wrong, or without service, loop thread, memory or descriptors.
 *
 * Blocks: 5 s, until the message is handed to the bus. In a callback: yes.
 */
TAVRIK_API int Tavrik_SMS_SendMsg_Async(const SmsMessage *message);

/**
 * Sends a message that is encoded already, without waiting for the answer. Otherwise as Tavrik_SMS_SendMsg_Async().
 *
 * @param pdu as of Tavrik_SMS_SendPdu(); not used any more after the call.
 * @return 0 when it is under way; -1 as Tavrik_SMS_SendMsg_Async().
 *
 * Blocks: 5 s, until the message is handed to the bus. In a callback: yes.
 */
TAVRIK_API int Tavrik_SMS_SendPdu_Async(const char *pdu);

/** How an asynchronous send ended. */
enum {
    TAVRIK_SMS_ANSWERED = 0,   /**< the service answered */
    TAVRIK_SMS_FAILED = -1,    /**< it refused, its answer could not be read, or the connection was lost */
    TAVRIK_SMS_TIMED_OUT = -2, /**< no answer within the limit */
    TAVRIK_SMS_ABORTED = -3    /**< the library was stopped meanwhile */
};

/**
 * End of an asynchronous send. Runs on the loop thread, once for each send that was under way.
 *
 * @param user   as given to the send.
 * @param status TAVRIK_SMS_ANSWERED and so on.
 * @param resp   the answer; -1 without.
 */
typedef void (*Tavrik_SmsSendCb)(void *user, int status, int32_t resp);

/**
 * Sends a text without waiting, and tells this send's own callback how it ended. The SMS callback hears nothing of it.
 *
 * @param message    as of Tavrik_SMS_SendMsg(); not used any more after the call.
 * @param timeout_ms limit in milliseconds from the call on, 1 to 60000; any other number stands for 60000.
 * @param callback   called exactly once when the result is 0, perhaps before the call returns; else never.
 * @param user       for the callback.
 * @return 0 when it is under way; -1 as Tavrik_SMS_SendMsg_Async(), and when `callback` is NULL.
 *
 * Blocks: 5 s at most and not beyond the limit, until the message is handed to the bus. In a callback: yes.
 */
TAVRIK_API int Tavrik_SMS_SendMsg_AsyncEx(const SmsMessage *message, int timeout_ms, Tavrik_SmsSendCb callback,
                                          void *user);

/** Sends a message that is encoded already; as Tavrik_SMS_SendMsg_AsyncEx(), with `pdu` of Tavrik_SMS_SendPdu(). Its
 * @return is the same. Blocks: the same. In a callback: yes. */
TAVRIK_API int Tavrik_SMS_SendPdu_AsyncEx(const char *pdu, int timeout_ms, Tavrik_SmsSendCb callback, void *user);

#ifndef TAVRIK_NO_SHORT_NAMES

/*
 * Decoding of received messages (3GPP TS 23.040 and 23.038). The record of these functions is small and their alphabet
 * is reduced; Tavrik_SMS_Decode() tells all that a message says.
 *
 * All of these keep no state, block nobody (but for the log) and may be called in a callback. The text codecs return -1
 * for a NULL pointer and for a count of 0 or less, and then change nothing. They read only the bytes that their count
 * occupies, and write no terminating zero unless it is said.
 */

/**
 * Decodes a received PDU into a new record.
 *
 * @param pdu hexadecimal text of an SMS-DELIVER or SMS-STATUS-REPORT, the service centre's address in front, as the
 *            line behind "+CMT:" has it.
 * @return the record, to be released with free(). What cannot be decoded is zero in it: all of it for a PDU of more
 *         than 512 characters. NULL when `pdu` is NULL and without memory.
 */
TAVRIK_API SmsMessage *creat_from_pdu(const char *pdu);

/**
 * Decodes a received PDU, as creat_from_pdu().
 *
 * A PDU whose service centre address is empty (it begins with "00") is not understood: the zero is taken for the first
 * octet of the message. Modems of this platform always deliver that address.
 *
 * @param pdu              hexadecimal text. The first other character ends it.
 * @param[in,out] message  cleared by the caller; members of which the PDU says nothing are left alone.
 */
TAVRIK_API void decode_pdu(const char *pdu, SmsMessage *message);

/**
 * Decodes an SMS-DELIVER.
 *
 * The data coding scheme counts by two bits alone: with bit 3 the text is UCS-2, else with bit 2 it is 8-bit data, else
 * 7-bit. An alphanumeric sender comes as hexadecimal digits. The time stamp has no place in the record.
 *
 * @param pdu              octets behind the first one, from the length of the sender's address on. All that the lengths
 *                         in it announce must be there. The two digits of each octet of the address are swapped.
 * @param first_octet      bit 6 tells that the text has a header.
 * @param[in,out] message  `concat` and its companions are set when the header has a concatenation element.
 * @return 0; -1 when a pointer is NULL.
 */
TAVRIK_API int decode_normal_pdu(uint8_t *pdu, uint8_t first_octet, SmsMessage *message);

/**
 * Decodes an SMS-STATUS-REPORT. The record has no place for more than the recipient; the status is in that of
 * Tavrik_SMS_Decode().
 *
 * @param pdu              octets behind the first one, from the message reference on; as of decode_normal_pdu().
 * @param[in,out] message  only `number` is set, to the recipient.
 * @return 0; -1 when a pointer is NULL.
 */
TAVRIK_API int decode_sms_receipt(uint8_t *pdu, SmsMessage *message);

/**
 * Tells whether a text could be a PDU: an even number of characters, of which the first is a hexadecimal digit. The
 * others are not looked at.
 *
 * @return 0, for the empty text too; -1.
 */
TAVRIK_API int is_sms_pdu_format(const char *text);

/**
 * Converts hexadecimal digits, upper or lower case, to bytes. The first other character ends the conversion.
 *
 * @param length        characters of `text`.
 * @param[out] bytes    half as many, rounded up. Behind an odd number of digits the last byte has its high half alone.
 * @param[out] count    bytes written; 0 when there is nothing to convert.
 * @return 0 always.
 */
TAVRIK_API int ascii_to_hex(const char *text, int length, uint8_t *bytes, int32_t *count);

/**
 * Converts bytes to upper-case hexadecimal digits.
 *
 * @param[out] text   2 characters for each byte.
 * @param[out] length characters written.
 * @return 0; -1.
 */
TAVRIK_API int hex_to_ascii(const uint8_t *bytes, int count, char *text, int32_t *length);

/**
 * Converts semi-octets, the low half first, to upper-case hexadecimal digits.
 *
 * @param bytes       the halves of each byte are swapped in place.
 * @param[out] text   2 characters for each byte.
 * @param[out] length characters written.
 * @return 0; -1.
 */
TAVRIK_API int hex_to_ascii_low(uint8_t *bytes, int count, char *text, int32_t *length);

/**
 * Converts an address to text: its digits, with a "+" in front when the type is 0x91 (international).
 *
 * @param address      the type octet, and the semi-octets of the digits, which are swapped in place.
 * @param count        octets of `address`, the type included.
 * @param[out] number  up to 2 * count characters with the terminating zero. A filler "F" at its end is taken off.
 * @return 0; -1.
 */
TAVRIK_API int decode_number(uint8_t *address, int count, char *number);

/**
 * Converts a service centre time stamp to text, "2024-09-24 14:08:30". The time zone is left out.
 *
 * @param octets     semi-octets of year, month, day, hour, minute, second and time zone.
 * @param count      7.
 * @param[out] text  of 25 bytes: with digits beyond 9 a field takes up to three characters.
 * @return 0; -1 when a pointer is NULL or `count` is another.
 */
TAVRIK_API int decode_time_stamp(const uint8_t *octets, int count, char *text);

/**
 * Looks for a concatenation element in a header of the text. Other elements are logged. One that does not lie wholly
 * inside the header ends the search.
 *
 * @param header elements, from behind the length of the header.
 * @param length of `header` in octets.
 * @return 324 bytes, to be released with free(): byte 0 is 1 when an element was found, byte 1 its reference (the low 8
 *         bits), byte 2 the number of this part, byte 3 that of all. NULL when `header` is NULL or `length` 0 or less,
 *         and without memory.
 */
TAVRIK_API uint8_t *parse_udh(const uint8_t *header, int length);

/**
 * Unpacks 7-bit characters.
 *
 * @param packed         octets from the one on that holds the first bit behind the header.
 * @param count          characters to unpack.
 * @param header_octets  octets of the header in front, its length octet included, or 0: the fill bits behind it are
 *                       skipped.
 * @param[out] septets   `count` bytes of the GSM alphabet, with 0x80 for code 0 ("@"), so that no zero is among them.
 * @param[out] length    bytes written.
 * @return 0; -1.
 */
TAVRIK_API int decode_7bit(const uint8_t *packed, int count, int header_octets, uint8_t *septets, int32_t *length);

/**
 * Maps characters of the GSM alphabet to ASCII: "@" (0x80), "$", "_" and the escape sequences of "^{}\\[~]|". All other
 * codes stay as they are, national characters too.
 *
 * @param[out] text   `count` characters at most.
 * @param[out] length characters written. Both are left alone when a pointer is NULL.
 */
TAVRIK_API void gsm_to_ascii(const uint8_t *septets, int count, char *text, int32_t *length);

/**
 * Copies 8-bit data.
 *
 * @param[out] text   `count` bytes.
 * @param[out] length bytes written.
 * @return 0; -1.
 */
TAVRIK_API int decode_8bit(const uint8_t *bytes, int count, char *text, int32_t *length);

/**
 * Converts UCS-2 to UTF-8. Surrogate pairs are not combined. U+0000 ends the text; half a unit at the end is left out.
 *
 * @param ucs2        units of two bytes, the high one first.
 * @param count       bytes of `ucs2`.
 * @param[out] utf8   the text with a terminating zero: 3 bytes for each unit, and one.
 * @param[out] length bytes written, without the terminating zero.
 * @return 0; -1.
 */
TAVRIK_API int convert_ucs2_to_utf8(const uint8_t *ucs2, int count, char *utf8, int32_t *length);

/**
 * Tells whether a text is all ASCII.
 *
 * @param count               bytes of `text`.
 * @param[in,out] ascii_count the number of bytes below 0x80 is added.
 * @return 1 when no byte is above 0x7F, 0 otherwise and when a pointer is NULL.
 */
TAVRIK_API int is_ascii(const char *text, int count, int32_t *ascii_count);

/**
 * Converts UTF-8 to the hexadecimal text of UCS-2, 4 upper-case digits for each character: "h" gives "0068". One beyond
 * U+FFFF gives 6.
 *
 * @param count       bytes of `utf8`.
 * @param[out] hex    up to 4 * count characters.
 * @param[out] length characters written, on failure those in front of what is not UTF-8. Unchanged for a NULL pointer
 *                    or `count`.
 * @return 0; -1, logged, save for a byte 0x80 to 0xBF where a character should begin.
 */
TAVRIK_API int code_convert_utf8_to_unicodeStr(const char *utf8, int count, char *hex, int32_t *length);

/**
 * Reply handlers of "sms.send" and "sms.send_pdu", for requests of the application's own: hand the result of the reply
 * to the SMS callback, on this thread. A reply without result is logged, save by the second one when a field is
 * missing.
 *
 * @param request not used.
 * @param type    not used.
 * @param message the reply.
 *
 * Block: as long as the callback takes.
 */
TAVRIK_API void sms_recv_send_msg_cb(struct ubus_request *request, int type, struct blob_attr *message);
TAVRIK_API void sms_pdu_recv_send_msg_cb(struct ubus_request *request, int type, struct blob_attr *message);

/**
 * Completion handler for asynchronous requests of the application's own whose `priv` is NULL or memory to release with
 * them: frees both.
 *
 * @param request from malloc(), like its `priv`; NULL does nothing.
 * @param status  not used.
 *
 * Blocks: never.
 */
TAVRIK_API void complete_sms_async_cb(struct ubus_request *request, int status);

#endif

/** Kinds of received messages. */
enum {
    TAVRIK_SMS_DELIVER = 1,
    TAVRIK_SMS_REPORT = 2 /**< tells what became of a message that was sent */
};

#define TAVRIK_SMS_NO_TIME INT64_MIN

/** All that a received message says. -1 stands for what it does not say, unless another value is stated. */
typedef struct Tavrik_SmsDetail {
    uint32_t size;          /**< sizeof(Tavrik_SmsDetail), set by the caller */
    int32_t type;           /**< TAVRIK_SMS_DELIVER or TAVRIK_SMS_REPORT */
    int64_t time;           /**< when the service centre got it: seconds since 1970-01-01 UTC, or TAVRIK_SMS_NO_TIME */
    int64_t discharge_time; /**< of a report: when the outcome was known; as `time` */
    int32_t zone;           /**< minutes by which the service centre's local time is ahead of UTC; 0 without a time */
    int32_t discharge_zone; /**< the same for `discharge_time` */
    int32_t encoding;       /**< TAVRIK_SMS_7BIT, _8BIT (data, and compressed text) or _UCS2 */
    int32_t message_class;  /**< 0 to 3; 0 is shown at once and not stored */
    int32_t protocol;       /**< protocol identifier (3GPP TS 23.040, clause 9.2.3.9) */
    int32_t source_port;    /**< application port, 0 to 65535 */
    int32_t destination_port;  /**< application port, 0 to 65535 */
    int32_t reference;         /**< shared by the parts of a longer message, 0 to 65535 */
    int32_t sequence;          /**< number of this part, 1 to `total`; 0 when it is no part */
    int32_t total;             /**< number of parts, 1 to 255; 0 when it is no part */
    int32_t message_reference; /**< of a report: that of the message sent, 0 to 255 */
    int32_t status;            /**< of a report: 0 to 255 (3GPP TS 23.040, clause 9.2.3.15); 0 is delivered */
    int32_t length;            /**< bytes of `text`, without its terminating zero */
    /** A part may end within a surrogate pair, with its first half: the half, else 0. `text` then ends with U+FFFD. */
    uint16_t last_half;
    uint16_t first_half; /**< the same for the second half of a pair with which the part begins */
    char number[64];     /**< sender, "+4917..." or a name in UTF-8; of a report: the recipient */
    char text[512];      /**< UTF-8, of 8-bit data the bytes; a zero follows */
} Tavrik_SmsDetail;

/**
 * Tells all that a received PDU says.
 *
 * Standard: 3GPP TS 23.040 clause 9.2, TS 23.038 clauses 4 and 6 and Annex A: the default alphabet with its extension
 * table, and the locking and single shift tables of all national languages.
 *
 * @param pdu             hexadecimal text of a whole SMS-DELIVER or SMS-STATUS-REPORT, the service centre's address (or
 *                        its length 0) in front, at most 512 characters.
 * @param[in,out] detail  `size` is set by the caller and stays; the rest is unchanged on failure.
 * @return 0; -1 when an argument is NULL or `size` is too small, and when `pdu` is no such message, is cut off or
 *         contradicts itself.
 *
 * Blocks: never, but for the log. In a callback: yes.
 */
TAVRIK_API int Tavrik_SMS_Decode(const char *pdu, Tavrik_SmsDetail *detail);

/** How long parts of a message wait for the others, counted from the last one that came. */
#define TAVRIK_SMS_JOIN_SECONDS 3600

/**
 * Joins the parts of longer messages: give it each message that came, and it returns each whole text.
 *
 * Parts may come in any order. Those of the same sender, reference and number of parts belong together; one that comes
 * twice replaces the first. At most 32 messages wait for parts: for one more, the one gives way that waited longest.
 *
 * @param detail       as Tavrik_SMS_Decode() fills it. A message in one part, and a report, is whole by itself.
 * @param[out] text    with result 1 the whole text with a terminating zero, to be released with free(); else NULL.
 * @param[out] length  bytes of the text, without the terminating zero; NULL when it is not wanted.
 * @return 1 when a message is whole; 0 when parts are missing; -1 when `detail` or `text` is NULL, `detail` is not one
 *         of Tavrik_SMS_Decode(), and without memory.
 *
 * Blocks: never, but for the log. In a callback: yes.
 */
TAVRIK_API int Tavrik_SMS_Join(const Tavrik_SmsDetail *detail, char **text, int32_t *length);

/* ---- WiFi ---------------------------------------------------------------------------------------------------- */

/* The module's WiFi access points: options of the uci package "wireless", which the WiFi service reads when it is
 * restarted. Each setter writes its option and restarts the service ("/etc/init.d/mwlan restart"), so stations lose
 * their connection for a while; getters read the option, whether the service has taken it or not.
 *
 * In all of them `band` names the radio, 0 (TAVRIK_WIFI_2G) or 1 (TAVRIK_WIFI_5G), and `second` is not read: give 0.
 * Network mode, bandwidth and channel stand in the sections "AP0_2G" and "AP0_5G" of type "wifi-device", the others in
 * "AP0_2G_if" and "AP0_5G_if" of type "wifi-iface"; a section that is missing is not made. Threads may change settings
 * at the same time: no change is lost, and the service restarts for each. */

enum { TAVRIK_WIFI_2G = 0, TAVRIK_WIFI_5G = 1 };

/** Buffer sizes, with the terminating zero: a network's name, and the longest key that a file may hold. */
#define TAVRIK_WIFI_SSID_SIZE 33
#define TAVRIK_WIFI_KEY_SIZE 65

/**
 * Names the network ("ssid").
 *
 * Standard: IEEE 802.11 clause 9.4.2.2.
 *
 * @param ssid at most 32 bytes, of any encoding, each 0x20 or above. An empty text removes the option.
 * @return 0 when the option is written and the restart's exit status is 0. -1 when an argument is refused (NULL, 33
 *         bytes or more, a byte below 0x20, a band that there is not), or the package cannot be read or written:
 *         nothing is changed then. -1, too, with the option written, when the restart cannot be started, has another
 *         status, or is ended by a signal; a program that ignores SIGCHLD learns of the first alone.
 *
 * Blocks: 5 s and 5 s while others hold the store of uci, and then until the service has restarted, however long
 * that takes. In a callback: yes.
 */
TAVRIK_API int Tavrik_Set_SSID(const char *ssid, int second, int band);

/**
 * Reads the network's name. Failures are told by the log alone: preset the buffer.
 *
 * @param[out] ssid of TAVRIK_WIFI_SSID_SIZE bytes; a longer text is cut to 32 bytes. Unchanged on failure.
 *
 * Blocks: as Tavrik_Get_Bcast(). In a callback: yes.
 */
TAVRIK_API void Tavrik_Get_SSID(char *ssid, int second, int band);

/**
 * Hides the network's name, or broadcasts it ("hidden").
 *
 * @param hidden 0 the name is broadcast, 1 hidden; others are refused.
 * @return as Tavrik_Set_SSID().
 *
 * Blocks: as Tavrik_Set_SSID(). In a callback: yes.
 */
TAVRIK_API int Tavrik_Set_Bcast(int hidden, int second, int band);

/**
 * Reads what Tavrik_Set_Bcast() sets.
 *
 * @param[out] hidden 0 or 1.
 * @return 0; -1, with the output unchanged, when it is NULL, for a band that there is not, when the package cannot be
 *         read, and when the option is missing, a list, or none of the values that the operation knows.
 *
 * Blocks: 5 s while others hold the store of uci. In a callback: yes.
 */
TAVRIK_API int Tavrik_Get_Bcast(int *hidden, int second, int band);

/**
 * Keeps stations apart ("isolate").
 *
 * @param isolate 0 stations reach one another, 1 they do not; others are refused.
 * @return as Tavrik_Set_SSID().
 *
 * Blocks: as Tavrik_Set_SSID(). In a callback: yes.
 */
TAVRIK_API int Tavrik_Set_Isolate(int isolate, int second, int band);

/**
 * Reads what Tavrik_Set_Isolate() sets.
 *
 * @param[out] isolate 0 or 1.
 * @return as Tavrik_Get_Bcast().
 *
 * Blocks: as Tavrik_Get_Bcast(). In a callback: yes.
 */
TAVRIK_API int Tavrik_Get_Isolate(int *isolate, int second, int band);

/** How stations prove that they may join, and what encrypts. */
enum {
    TAVRIK_WIFI_AUTH_OPEN = 0,      /**< "none": no key */
    TAVRIK_WIFI_AUTH_WPA2 = 1,      /**< "psk2" */
    TAVRIK_WIFI_AUTH_WPA2_TKIP = 2, /**< "psk2+tkip+ccmp": TKIP allowed, too */
    TAVRIK_WIFI_AUTH_WPA = 3,       /**< "psk+ccmp" */
    TAVRIK_WIFI_AUTH_WPA_TKIP = 4,  /**< "psk+tkip+ccmp" */
    TAVRIK_WIFI_AUTH_MIXED_AES = 5, /**< "mixed-psk+aes": WPA or WPA2 */
    TAVRIK_WIFI_AUTH_MIXED = 6,     /**< "mixed-psk"; read, also any other word with "mixed" */
    TAVRIK_WIFI_AUTH_SHARED = 7,    /**< only read, a word with "+shared": WEP, which protects nothing */
    TAVRIK_WIFI_AUTH_TKIP = 8       /**< only read, any other word with "+tkip" */
};

/**
 * Sets authentication ("encryption") and key ("key1"), both or none.
 *
 * Standard: IEEE 802.11 clause 12, annex J.4 (pass-phrases).
 *
 * @param auth TAVRIK_WIFI_AUTH_OPEN to TAVRIK_WIFI_AUTH_MIXED; others are refused.
 * @param key  8 to 63 characters from blank (0x20) to tilde (0x7E); others are refused. Not read, and NULL allowed, for
 *             TAVRIK_WIFI_AUTH_OPEN: the key of before stays in the package.
 * @return as Tavrik_Set_SSID().
 *
 * Blocks: as Tavrik_Set_SSID(). In a callback: yes.
 */
TAVRIK_API int Tavrik_Set_Auth(int auth, const char *key, int second, int band);

/**
 * Reads authentication and key.
 *
 * @param[out] auth TAVRIK_WIFI_AUTH_OPEN to TAVRIK_WIFI_AUTH_TKIP.
 * @param[out] key  of TAVRIK_WIFI_KEY_SIZE bytes, or NULL: the key as it stands in the package, empty when there is
 *                  none. One that does not fit fails the call.
 * @return as Tavrik_Get_Bcast().
 *
 * Blocks: as Tavrik_Get_Bcast(). In a callback: yes.
 */
TAVRIK_API int Tavrik_Get_Auth(int *auth, char *key, int second, int band);

/**
 * Limits how many stations may be connected at a time ("maxassoc").
 *
 * @param count 1 to 2007; others are refused. What the radio can serve may be fewer.
 * @return as Tavrik_Set_SSID().
 *
 * Blocks: as Tavrik_Set_SSID(). In a callback: yes.
 */
TAVRIK_API int Tavrik_WiFi_Connect_Num_Config(int count, int second, int band);

/** Network modes: what stations may speak. */
enum {
    TAVRIK_WIFI_11G = 2,  /**< "11g", 2.4 GHz */
    TAVRIK_WIFI_11BG = 3, /**< "11bg", 2.4 GHz */
    TAVRIK_WIFI_11NG = 4, /**< "11ng", 2.4 GHz */
    TAVRIK_WIFI_11A = 5,  /**< "11a", 5 GHz */
    TAVRIK_WIFI_11NA = 6, /**< "11na", 5 GHz */
    TAVRIK_WIFI_11AC = 7  /**< "11ac", 5 GHz */
};

/**
 * Sets the radio's network mode ("hwmode").
 *
 * @param mode one of the band's: 2 to 4 for 2.4 GHz, 5 to 7 for 5 GHz. Others are refused, without a line in the log.
 * @return as Tavrik_Set_SSID().
 *
 * Blocks: as Tavrik_Set_SSID(). In a callback: yes.
 */
TAVRIK_API int Tavrik_Set_Netmode(int mode, int second, int band);

/**
 * Reads what Tavrik_Set_Netmode() sets.
 *
 * @param[out] mode one of the band's.
 * @return as Tavrik_Get_Bcast().
 *
 * Blocks: as Tavrik_Get_Bcast(). In a callback: yes.
 */
TAVRIK_API int Tavrik_Get_Netmode(int *mode, int second, int band);

/**
 * Sets the radio's bandwidth ("htmode"), while the network mode is TAVRIK_WIFI_11NG or TAVRIK_WIFI_11NA: with any
 * other, TAVRIK_WIFI_11AC among them, it is refused.
 *
 * @param bandwidth 0 20 MHz ("HT20", 5 GHz "VHT20"), 1 40 MHz ("HT40", "VHT40"), 5 GHz alone 2 80 MHz ("VHT80").
 *                  Others are refused, without a line in the log.
 * @return as Tavrik_Set_SSID().
 *
 * Blocks: as Tavrik_Set_SSID(). In a callback: yes.
 */
TAVRIK_API int Tavrik_Set_Band(int bandwidth, int second, int band);

/**
 * Reads what Tavrik_Set_Band() sets.
 *
 * @param[out] bandwidth 0, 1 or 2.
 * @return as Tavrik_Get_Bcast().
 *
 * Blocks: as Tavrik_Get_Bcast(). In a callback: yes.
 */
TAVRIK_API int Tavrik_Get_Band(int *bandwidth, int second, int band);

/**
 * Sets the radio's channel ("channel").
 *
 * @param channel 2.4 GHz: what check_channel_with_crty() allows. 5 GHz: 0 (automatic), 36, 40, 44, 48, 52, 56, 60, 64,
 *                149, 153, 157 or 161. Others are refused, without a line in the log.
 * @return as Tavrik_Set_SSID().
 *
 * Blocks: as Tavrik_Set_SSID(). In a callback: yes.
 */
TAVRIK_API int Tavrik_Set_Channel(int channel, int second, int band);

/**
 * Reads what Tavrik_Set_Channel() sets.
 *
 * @param[out] channel 0 is automatic, also where the package says "auto".
 * @return as Tavrik_Get_Bcast().
 *
 * Blocks: as Tavrik_Get_Bcast(). In a callback: yes.
 */
TAVRIK_API int Tavrik_Get_Channel(int *channel, int second, int band);

/** Access points of a band, to be added up. */
enum {
    TAVRIK_WIFI_AP0 = 1, /**< the first, "AP0_2G" or "AP0_5G" */
    TAVRIK_WIFI_AP1 = 2  /**< the second, "AP1_2G" or "AP1_5G" */
};

/**
 * Switches the band's access points on and off ("disabled"), all or none of the change.
 *
 * @param mode 0 none, TAVRIK_WIFI_AP0, TAVRIK_WIFI_AP1, or their sum for both; others are refused. An access point
 * whose section is missing is off: to switch it on fails.
 * @return as Tavrik_Set_SSID().
 *
 * Blocks: as Tavrik_Set_SSID(). In a callback: yes.
 */
TAVRIK_API int Tavrik_Set_WiFi_Mode(int mode, int second, int band);

/**
 * Reads which of the band's access points are on.
 *
 * @param[out] mode 0, or TAVRIK_WIFI_AP0 and TAVRIK_WIFI_AP1 added up: those whose section is there, with "disabled"
 *                  missing or "0".
 * @return as Tavrik_Get_Bcast(); -1 only for a refused argument, and when the package cannot be read.
 *
 * Blocks: as Tavrik_Get_Bcast(). In a callback: yes.
 */
TAVRIK_API int Tavrik_Get_WiFi_Mode(int *mode, int second, int band);

#ifndef TAVRIK_NO_SHORT_NAMES

/**
 * Tells whether a 2.4 GHz channel is allowed in the country that the package names ("country" of the sections of type
 * "wifi-device", the last that has it).
 *
 * @param channel 0 automatic, 1 and up.
 * @param second  not read.
 * @return 1 when the country is one of the 140 of the library's table, by its code in upper case, and the channel not
 *         above its highest one (11 to 14); 0 otherwise, and always in a country without any (IR, SY).
 *
 * Blocks: as Tavrik_Get_Bcast(). In a callback: yes.
 */
TAVRIK_API int check_channel_with_crty(int channel, int second);

#endif

/* ---- GNSS ---------------------------------------------------------------------------------------------------- */

/** What Tavrik_GnssData::known tells to be there; a member whose bit is missing is 0 and means nothing. */
enum {
    TAVRIK_GNSS_KNOWN_FIX = 1 << 0,      /**< `fix_type` */
    TAVRIK_GNSS_KNOWN_TIME = 1 << 1,     /**< `hour`, `min`, `sec`; with the date `utc_ms` */
    TAVRIK_GNSS_KNOWN_DATE = 1 << 2,     /**< `year`, `month`, `day` */
    TAVRIK_GNSS_KNOWN_POSITION = 1 << 3, /**< `lat`, `lon` */
    TAVRIK_GNSS_KNOWN_ALTITUDE = 1 << 4, /**< `alt`, `geoid` */
    TAVRIK_GNSS_KNOWN_SPEED = 1 << 5,    /**< `speed` */
    TAVRIK_GNSS_KNOWN_COURSE = 1 << 6,   /**< `course`; a receiver that stands tells none */
    TAVRIK_GNSS_KNOWN_QUALITY = 1 << 7,  /**< `quality` */
    TAVRIK_GNSS_KNOWN_MODE = 1 << 8,     /**< `mode` */
    TAVRIK_GNSS_KNOWN_DOP = 1 << 9,      /**< `pdop`, `hdop`, `vdop` */
    TAVRIK_GNSS_KNOWN_USED = 1 << 10,    /**< `used`, `used_by`, and `used` of each satellite */
    TAVRIK_GNSS_KNOWN_VIEW = 1 << 11     /**< `in_view`, `view_by`, `sat_count`, `sats` */
};

/** What a Tavrik_GnssData carries. */
enum {
    TAVRIK_GNSS_RECORD = 0,  /**< all that the receiver told about one moment */
    TAVRIK_GNSS_SENTENCE = 1 /**< one sentence of the receiver, as it came: `mono_ms`, `sentence_len`, `sentence` */
};

/** Tavrik_GnssData::fix_type. */
enum { TAVRIK_GNSS_FIX_NONE = 1, TAVRIK_GNSS_FIX_2D = 2, TAVRIK_GNSS_FIX_3D = 3 };

/** Constellations: indexes of `used_by` and `view_by`, and Tavrik_GnssSatellite::constellation. */
enum {
    TAVRIK_GNSS_GPS = 0,
    TAVRIK_GNSS_GLONASS = 1,
    TAVRIK_GNSS_GALILEO = 2,
    TAVRIK_GNSS_BEIDOU = 3,
    TAVRIK_GNSS_QZSS = 4,
    TAVRIK_GNSS_NAVIC = 5,
    TAVRIK_GNSS_SBAS = 6,
    TAVRIK_GNSS_OTHER = 7,
    TAVRIK_GNSS_CONSTELLATIONS = 8
};

#define TAVRIK_GNSS_SATELLITES_MAX 64
#define TAVRIK_GNSS_SENTENCE_SIZE 254
#define TAVRIK_GNSS_AZIMUTH_UNKNOWN 0xFFFF
#define TAVRIK_GNSS_ELEVATION_UNKNOWN (-128)

/** One satellite in view. 8 bytes. */
typedef struct Tavrik_GnssSatellite {
    uint16_t id;           /**< as the receiver numbers it in its sentences */
    uint16_t azimuth;      /**< degrees from true north, 0 to 359; TAVRIK_GNSS_AZIMUTH_UNKNOWN */
    uint8_t constellation; /**< TAVRIK_GNSS_GPS and so on */
    int8_t elevation;      /**< degrees, -90 to 90; TAVRIK_GNSS_ELEVATION_UNKNOWN */
    uint8_t cn0;           /**< C/N0 in dBHz, the strongest of its signals; 0 when it is not tracked */
    uint8_t used;          /**< 1 when the position rests on it */
} Tavrik_GnssSatellite;

/**
 * What the receiver told, from its NMEA 0183 sentences RMC, GGA, GSA, GSV and VTG. 896 bytes, the same on all machines;
 * `size` may grow with later versions, never change what is there.
 *
 * A record joins the sentences of one moment. What none of them told is not in `known`; satellites in view, which many
 * receivers tell less often, are those last told, for 15 seconds at most.
 */
typedef struct Tavrik_GnssData {
    uint16_t size;    /**< bytes that are filled: 896 */
    uint8_t kind;     /**< TAVRIK_GNSS_RECORD or TAVRIK_GNSS_SENTENCE; the members that belong to the other are 0 */
    uint8_t fix_type; /**< TAVRIK_GNSS_FIX_NONE, _2D or _3D */
    uint32_t known;   /**< TAVRIK_GNSS_KNOWN_FIX and so on */
    int64_t utc_ms;   /**< milliseconds since 1970-01-01 00:00 UTC, when both time and date are known */
    int64_t mono_ms;  /**< CLOCK_MONOTONIC in milliseconds, when the first byte of the moment's first sentence came */
    int32_t lat;      /**< 1e-7 degree, north positive (WGS 84) */
    int32_t lon;      /**< 1e-7 degree, east positive */
    int32_t alt;      /**< millimetres above mean sea level */
    int32_t geoid;    /**< millimetres of mean sea level above the ellipsoid; 0 also when only the altitude was told */
    uint32_t speed;   /**< over ground, millimetres a second */
    uint16_t course;  /**< over ground, 0.01 degree from true north, 0 to 35999 */
    uint8_t
        quality;   /**< GGA's: 0 none, 1 GPS, 2 differential, 4 RTK, 5 float RTK, 6 estimated, 7 manual, 8 simulator */
    char mode;     /**< RMC's: A autonomous, D differential, E estimated, F float RTK, N none, P precise, R RTK, ... */
    uint16_t pdop; /**< dilution of precision, 0.01 */
    uint16_t hdop; /**< horizontal, 0.01 */
    uint16_t vdop; /**< vertical, 0.01 */
    uint8_t used;  /**< satellites that the position rests on */
    uint8_t in_view;                             /**< satellites in view, also beyond those that `sats` has room for */
    uint8_t used_by[TAVRIK_GNSS_CONSTELLATIONS]; /**< `used` by constellation; all 0 when only a sum was told */
    uint8_t view_by[TAVRIK_GNSS_CONSTELLATIONS]; /**< `in_view` by constellation */
    uint16_t year;                               /**< UTC */
    uint8_t month;                               /**< 1 to 12 */
    uint8_t day;                                 /**< 1 to 31 */
    uint8_t hour;                                /**< 0 to 23 */
    uint8_t min;                                 /**< 0 to 59 */
    uint8_t sec;                                 /**< 0 to 59, and 60 in a leap second */
    uint8_t pad;                                 /**< 0 */
    uint8_t sat_count;                           /**< entries of `sats` */
    uint8_t pad2[7];                             /**< 0 */
    Tavrik_GnssSatellite sats[TAVRIK_GNSS_SATELLITES_MAX];
    uint16_t sentence_len;                    /**< characters of `sentence` */
    char sentence[TAVRIK_GNSS_SENTENCE_SIZE]; /**< "$...*hh", a zero byte behind, without CR LF */
    uint8_t reserved[40];                     /**< 0 */
} Tavrik_GnssData;

/** Kinds of receivers. */
enum {
    TAVRIK_GNSS_BUILT_IN = 0, /**< the module's own, driven by the ubus object "gps" */
    TAVRIK_GNSS_POWERED = 1,  /**< an external one, powered through a GPIO line; each start loads its firmware */
    TAVRIK_GNSS_SERIAL = 2    /**< an external one on the port, with the ubus object "hdgnssapp" */
};

/** What the callback gets. */
enum {
    TAVRIK_GNSS_CALLBACK_RECORD = 0,    /**< a record for each epoch; so at the beginning */
    TAVRIK_GNSS_CALLBACK_SENTENCES = 1, /**< the sentences, each with a right checksum */
    TAVRIK_GNSS_CALLBACK_BOTH = 2       /**< the sentences of an epoch, and behind them its record */
};

/**
 * Gets what the receiver told. `data` is valid during the call.
 *
 * Runs on the NMEA thread (`tavriksdknmea`), one call at a time. It may call any operation; after Tavrik_Gnss_Deinit()
 * inside it nothing more comes. While it runs the receiver is not read: what the port cannot keep meanwhile is lost.
 */
typedef void (*Tavrik_GnssCb)(const Tavrik_GnssData *data);

/** Loads the firmware of a receiver of kind TAVRIK_GNSS_POWERED; 0 when it is loaded. */
typedef int (*Tavrik_GnssLoader)(void);

/**
 * 1 while the receiver is started, for reading. Set before the thread is told to read; cleared by Tavrik_Gnss_Stop()
 * and Tavrik_Gnss_Deinit(). The library reads and writes these words atomically.
 */
extern TAVRIK_API int g_upgrade_ready;
/** The GPIO line given to Tavrik_Gnss_Init(). */
extern TAVRIK_API int g_gpio_number;
/** Control pipe of the NMEA thread: its read end, its write end; -1 while there is none. Not to be closed. */
extern TAVRIK_API int g_pipe[2];

/**
 * Chooses the kind of receiver, at first TAVRIK_GNSS_BUILT_IN. Counts from the next Tavrik_Gnss_Init() on.
 *
 * @param kind TAVRIK_GNSS_BUILT_IN (0), TAVRIK_GNSS_POWERED (1) or TAVRIK_GNSS_SERIAL (2).
 * @return 0; -1 for any other value, and the kind stays.
 *
 * Blocks: never, but for the log. In a callback: yes.
 */
TAVRIK_API int Tavrik_Gnss_Chip_Select(int kind);

/**
 * Sets what loads the firmware of a receiver of kind TAVRIK_GNSS_POWERED. Without a loader such a receiver cannot be
 * started.
 *
 * @param loader runs inside Tavrik_Gnss_Start(), on its thread, with no lock held; NULL for none.
 * @return 0.
 *
 * Blocks: never. In a callback: yes.
 */
TAVRIK_API int Tavrik_Gnss_SetFirmwareLoader(Tavrik_GnssLoader loader);

/**
 * Makes ready for Tavrik_Gnss_Start(): starts the NMEA thread, which waits. With TAVRIK_GNSS_POWERED the GPIO line is
 * set up first, and the AT channel opened (Tavrik_AT_Init()).
 *
 * @param callback    gets positions (Tavrik_Gnss_CallBack_Switch()); NULL when Tavrik_Gnss_GetGnssLocationInfo() is
 *                    enough.
 * @param gpio_number the GPIO line of a receiver of kind TAVRIK_GNSS_POWERED; else it is only kept.
 * @return 0; -1 when it was called before, without Tavrik_Gnss_Deinit(), and when the line, the AT channel, the pipe or
 *         the thread cannot be had. An AT channel that was opened stays open, until Tavrik_Gnss_Deinit() at the latest.
 *
 * Blocks: as Tavrik_AT_Init() with TAVRIK_GNSS_POWERED, and then 1 s until the line is there; else never, but for the
 * log. In a callback: yes; after Tavrik_Gnss_Deinit() in it the new callback may run before the old one has returned.
 */
TAVRIK_API int Tavrik_Gnss_Init(Tavrik_GnssCb callback, int gpio_number);

/**
 * Ends the NMEA thread, and closes the ports and the control pipe. The receiver is not stopped: Tavrik_Gnss_Stop() does
 * that. With TAVRIK_GNSS_POWERED the AT channel is closed (Tavrik_AT_Deinit()), also one that somebody else opened.
 * Without Tavrik_Gnss_Init() it does no more than that.
 *
 * Behind it the callback does not run any more, with two exceptions: the one inside which it was called, and one that
 * did not end within 2 s. That one is left behind with a line in the log: its thread delivers nothing more, and ends
 * when it returns. Tavrik_Gnss_Init() works meanwhile.
 *
 * @return 0.
 *
 * Blocks: 2 s, while the callback runs; not while another thread is inside this call; and as Tavrik_AT_Deinit().
 * In a callback: yes, without waiting for it.
 */
TAVRIK_API int Tavrik_Gnss_Deinit(void);

/**
 * Brings the receiver up and tells the thread to read it, at "/dev/ttyS3". Before it: Tavrik_Gnss_Init().
 *
 * What it returns depends on the kind, and is not always what it looks like; `g_upgrade_ready` tells whether the
 * receiver is started.
 *
 * @return TAVRIK_GNSS_BUILT_IN: **-1 always**, also when the receiver is started: ubus "gps" "gnss_init" has succeeded,
 *         and the thread reads.
 *         TAVRIK_GNSS_POWERED: 0 when the firmware was loaded. **-1 when it was loaded before** (Tavrik_Gnss_Deinit()
 *         without Tavrik_Gnss_Stop() keeps it): the receiver is started all the same. -1 when the line cannot be set
 * up, and when there is no loader; also when it fails: then the receiver is not started. TAVRIK_GNSS_SERIAL: 0 when the
 * receiver is started. **0 when the port cannot be opened**: then it is not. -1 when the thread could not be told. -1
 * when ubus "hdgnssapp" "start" failed: then it **is** started. Whatever the kind: -1 while it is started.
 *
 * When the port cannot be opened by the thread, or is lost later, that is told in the log alone; Tavrik_Gnss_Stop() and
 * Tavrik_Gnss_Start() try again.
 * Blocks: 10 s for the ubus call; as long as the loader. In a callback: yes.
 */
TAVRIK_API int Tavrik_Gnss_Start(void);

/**
 * Stops the receiver, and tells the thread to stop reading and to close the port. By kind: calls ubus "gps"
 * "gnss_deinit"; drives the GPIO line low, whereupon the firmware counts as not loaded; sends the receiver its stop
 * command and calls ubus "hdgnssapp" "close". Failures of these are logged, and no more.
 *
 * The thread hears of it as soon as it is not inside a callback; until then callbacks may come.
 *
 * @return 0; -1 when the receiver is not started, and then nothing is done; -1 when the thread could not be told, and
 *         then the receiver counts as started.
 *
 * Blocks: 10 s for the ubus call, 1 s while the port takes nothing. In a callback: yes.
 */
TAVRIK_API int Tavrik_Gnss_Stop(void);

/**
 * Chooses what the callback gets, from the next sentence or record on.
 *
 * @param value TAVRIK_GNSS_CALLBACK_RECORD (0, at first), _SENTENCES (1) or _BOTH (2).
 * @return 0; -1 for any other value.
 *
 * Blocks: never, but for the log. In a callback: yes.
 */
TAVRIK_API int Tavrik_Gnss_CallBack_Switch(int value);

/**
 * Switches the copy of sentences to the NMEA output port "/dev/ttyGS0" on or off. Each goes out whole with CR LF, or,
 * when the port takes no more, not at all. A port that cannot be opened is tried again with each sentence.
 *
 * @param flag 1 on, 0 off (at first).
 * @return 0; -1 for any other value.
 *
 * Blocks: never, but for the log. In a callback: yes.
 */
TAVRIK_API int Tavrik_Gnss_Data_to_Nmea_Port(int flag);

/**
 * Switches the saving of sentences on or off: they are appended with CR LF to "/mnt/userdata/gnssdata.txt". The file
 * has at most 1 MiB; then it is begun afresh.
 *
 * @param flag 1 on, 0 off (at first).
 * @return 0; -1 for any other value. That the file cannot be written is told in the log, once.
 *
 * Blocks: never, but for the log. In a callback: yes.
 */
TAVRIK_API int Tavrik_Gnss_SetSaveFlag(int flag);

/**
 * Limits callbacks: of each epoch the callback gets all, or, when it comes too soon after the last one, nothing. At
 * first there is no limit. The receiver is told nothing; port, file and Tavrik_Gnss_GetGnssLocationInfo() get
 * everything.
 *
 * @param rate epochs a second, 1 to 10.
 * @return 0; -1 for any other value.
 *
 * Blocks: never, but for the log. In a callback: yes.
 */
TAVRIK_API int Tavrik_Gnss_SetNmeaRate(int rate);

/**
 * Sets what the built-in receiver is given as "gnss_init_param" at the next Tavrik_Gnss_Start(), 0 at first. It is
 * passed on as it is.
 *
 * @param mode as the module's GNSS service understands it.
 * @return 0.
 *
 * Blocks: never. In a callback: yes.
 */
TAVRIK_API int Tavrik_Gnss_SetPositionMode(int mode);

/**
 * Copies the record of the last epoch since Tavrik_Gnss_Init(); its `mono_ms` tells how old it is.
 *
 * @param[out] data a record of kind TAVRIK_GNSS_RECORD; unchanged on failure.
 * @return 0; -1 when there is none yet.
 *
 * Blocks: never, but for the log. In a callback: yes.
 */
TAVRIK_API int Tavrik_Gnss_GetGnssLocationInfo(Tavrik_GnssData *data);

/**
 * Sends bytes to the receiver's port as they are.
 *
 * @param command the bytes.
 * @param length  their number, 1 or more.
 * @return the bytes written, fewer than `length` when the port took no more; -1 while the port is closed (before the
 *         thread has opened it in Tavrik_Gnss_Start(), when it is lost), and when nothing was written.
 *
 * Blocks: 1 s while the port takes nothing. In a callback: yes.
 */
TAVRIK_API int Tavrik_Gnss_SendCommand(const void *command, int length);

/**
 * Tells the receiver by "$MSGCFG,0,0x%x" which sentences to send.
 *
 * @param sentences a bit for each, as the receiver numbers them.
 * @return 0; -1 as Tavrik_Gnss_SendCommand(), or when it was not sent whole.
 *
 * Blocks: as Tavrik_Gnss_SendCommand(). In a callback: yes.
 */
TAVRIK_API int Tavrik_Gnss_Set_Nmea_Msgcfg(uint32_t sentences);

/**
 * Restart the receiver: by "$RESET,3" without anything that it knows, by "$RESET,1" with all.
 *
 * @return 0; -1 as Tavrik_Gnss_SendCommand(), or when it was not sent whole.
 *
 * Block: as Tavrik_Gnss_SendCommand(). In a callback: yes.
 */
TAVRIK_API int Tavrik_Gnss_ColdStart(void);
TAVRIK_API int Tavrik_Gnss_HotStart(void);

/* ---- Firmware upgrade ---------------------------------------------------------------------------------------- */

/** What an upgrade is doing. */
enum { TAVRIK_UPDATE_UPDATING = 0, TAVRIK_UPDATE_SUCCESS = 1, TAVRIK_UPDATE_FAILED = 2, TAVRIK_UPDATE_NOT_STARTED = 3 };

#define TAVRIK_UPDATE_WORD_SIZE 32

/*
 * The module's over-the-air service, ubus object "ota", fetches and flashes the package. It may answer a request only
 * when it is through, or at once: Tavrik_Query_Update_State() on another thread tells how far it is. Once that is
 * TAVRIK_UPDATE_SUCCESS the application reboots the module.
 */

/**
 * Upgrades the module's firmware from a package on local storage.
 *
 * @param path of the package, as the service finds it; its size must be below 4 GiB (the service is told the low 32
 *             bits).
 * @return 0 when the service has taken the request; -1 when `path` is NULL or there is no such file, the bus (told on
 *         standard error, too) or the service is not there, it refuses, or does not answer within 180 s.
 *
 * Blocks: 180 s. In a callback: yes.
 */
TAVRIK_API int Tavrik_Upgrade_Through_SD(const char *path);

/**
 * Upgrades the module's firmware from a package on an HTTP server. Checks first that the URL answers, as
 * query_http_file_is_exist(); the service then fetches the package by itself.
 *
 * @param url begins with "http://" or "https://", in lower case.
 * @return 0 when the service has taken the request; -1 when `url` is NULL or another one, the check fails, the bus or
 *         the service is not there, it refuses, or does not answer within 180 s.
 *
 * Blocks: 30 s for the check, then 180 s. In a callback: yes.
 */
TAVRIK_API int Tavrik_Upgrade_Through_HTTP(const char *url);

/**
 * Asks the service how far the upgrade is. Its word counts by its beginning: "updating", "success", "failed",
 * "not start". For a reply without any word the last one counts that any query was told.
 *
 * @param[out] state TAVRIK_UPDATE_UPDATING to TAVRIK_UPDATE_NOT_STARTED; unchanged on failure.
 * @return 0; -1 for any other word, when `state` is NULL, without bus or service, and without an answer within 30 s.
 *
 * Blocks: 30 s. In a callback: yes.
 */
TAVRIK_API int Tavrik_Query_Update_State(int32_t *state);

/**
 * As Tavrik_Query_Update_State(), and gives the word, of which the service may make more than its beginning.
 *
 * @param[out] state as there.
 * @param[out] word  of TAVRIK_UPDATE_WORD_SIZE bytes: the first 31 of the word and a zero byte, whatever the result;
 *                   empty when the service told nothing.
 * @return as there; -1 when `word` is NULL, too.
 *
 * Blocks: 30 s. In a callback: yes.
 */
TAVRIK_API int Tavrik_Query_Update_StateEx(int32_t *state, char *word);

#ifndef TAVRIK_NO_SHORT_NAMES

/**
 * Checks by a HEAD request that a URL answers with status 200. A redirection is another status. The certificate of an
 * https server is verified with the authorities in the system's store, below "/etc/ssl/certs".
 *
 * The request is made by libcurl ("libcurl.so.4"), which is loaded by the first check and stays loaded. Before 7.84 it
 * is not safe to initialise on two threads: a program that uses it as well calls curl_global_init() before.
 *
 * @param url of http or https; libcurl goes through a proxy where the environment names one.
 * @return 0; -1 when `url` is NULL or empty, for any other answer and protocol, without an answer (the connection must
 *         stand after 10 s), a certificate that is not valid, and without libcurl, thread or memory. Why is in the log,
 *         at level debug.
 *
 * Blocks: 30 s, and while libcurl is being loaded. In a callback: yes.
 */
TAVRIK_API int query_http_file_is_exist(const char *url);

/**
 * Takes what the check of a URL receives, and discards it.
 *
 * @return `count`.
 *
 * Blocks: never. In a callback: yes.
 */
TAVRIK_API size_t write_data(const void *data, size_t size, size_t count, void *user);

/**
 * Reply handler for requests "query" of the object "ota" that an application makes itself: the word in the reply's
 * field "response" becomes the last word, see Tavrik_Query_Update_State(), and is logged. Without such a field nothing
 * happens.
 *
 * Blocks: never, but for the log. In a callback: yes.
 */
TAVRIK_API void query_update_state_cb(struct ubus_request *request, int type, struct blob_attr *message);

#endif

#ifdef __cplusplus
}
#endif

#endif
