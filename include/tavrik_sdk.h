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
#define TAVRIK_API __attribute__((visibility("default")))
#define TAVRIK_PRINTF(format, first) __attribute__((format(printf, format, first)))
#else
#define TAVRIK_API
#define TAVRIK_PRINTF(format, first)
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

/* ---- AT channel ---------------------------------------------------------------------------------------------- */

/* ---- Tokenizer and text helpers ------------------------------------------------------------------------------ */

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

/** Releases the lock that tavrik_ubus_lock took, on the same thread. Does not block. */
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

#ifdef __cplusplus
}
#endif

#endif
