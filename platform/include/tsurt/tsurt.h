// Runtime of the TSU device: launches, transfers, stream waits, device memory.
// On a machine without a TSU this is served by the emulator in platform/src/tsurt.
#pragma once

#include <stddef.h>

#ifdef __cplusplus
extern "C" {
#endif

// Copy directions of tsu_memcpy.
#define TSU_MEMCPY_D2H 0
#define TSU_MEMCPY_H2D 1
#define TSU_MEMCPY_D2D 2

// Result codes. Callers treat every non-zero value as opaque.
#define TSU_SUCCESS 0
#define TSU_ERROR_INVALID_VALUE 1
#define TSU_ERROR_NOT_CONFIGURED 2
#define TSU_ERROR_OUT_OF_MEMORY 3
#define TSU_ERROR_INVALID_POINTER 4

// Opens a launch of nclusters x ncores on stream (null: the default stream).
// The pending launch belongs to the calling thread.
int tsu_launch_config(int nclusters, int ncores, void* stream);
// Copies bytes from value into the pending launch's argument block at offset.
int tsu_launch_argument_set(const void* value, size_t bytes, size_t offset);
// Queues the pending launch of the kernel that descriptor describes.
int tsu_launch_async(const void* descriptor);
// Synchronous copy, ordered after all queued device work.
int tsu_memcpy(void* dst, const void* src, size_t bytes, int kind);
// Blocks until the stream (null: the default stream) has run everything
// queued before the call; the calling thread may run queued launches itself.
int tsu_wait(void* stream);

// Global memory of device type 2 or 3. Zero bytes, other device types or an
// exhausted arena return non-zero and leave *ptr null.
int tsu_malloc(void** ptr, unsigned long bytes, int dev_type);
// Returns non-zero for a pointer that tsu_malloc did not hand out; null is a no-op.
int tsu_free(void* ptr);

// Streams: in-order queues, each drained by its own worker.
int tsu_stream_create(void** stream);
// Drains, then destroys.
int tsu_stream_destroy(void* stream);

#ifdef __cplusplus
}
#endif
