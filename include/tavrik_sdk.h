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

/* ---- Device management --------------------------------------------------------------------------------------- */

#ifdef __cplusplus
}
#endif

#endif
