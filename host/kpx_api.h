/*
 * kpx_api.h - the C interface between the bitmap filter module and its host.
 *
 * This header is the one contract shared by the module (source/) and our host
 * (app/runtime/). Everything crosses as plain fixed-layout records and plain C
 * function pointers; callbacks return status codes and never throw.
 *
 * The host hands the module one KPX_HOST table. Its first field is the host
 * interface version; after it come pointers to operation groups, one per
 * role. Every group starts with its own byte size, so a group can gain
 * operations at its end without breaking older modules, and a host may leave
 * a whole group null when it does not offer that role. Use KPX_GROUP_HAS() to
 * test for an operation before calling it.
 */
#ifndef KPX_API_H
#define KPX_API_H

#include <stddef.h>
#include <stdint.h>

#ifdef __cplusplus
extern "C" {
#endif

/* ------------------------------------------------------------------------ */
/* Versions, messages, status codes                                          */
/* ------------------------------------------------------------------------ */

#define KPX_API_VERSION 23100 /* lowest host interface version accepted */
#define KPX_PLUGIN_TYPE_BITMAPFILTER 7
#define KPX_FILTER_RECORD_SIZE 72
#define KPX_PREFERENCES_ID 1000001 /* the module's shared preferences container */

/* kpx_main messages */
#define KPX_MSG_START 1
#define KPX_MSG_INIT 2
#define KPX_MSG_END 3
#define KPX_MSG_QUERY 4
#define KPX_MSG_PLUGIN 6

/* kpx_main replies */
#define KPX_REPLY_OK 1
#define KPX_REPLY_FAILED 0
#define KPX_REPLY_UNKNOWN (-1)
#define KPX_REPLY_BAD_HOST (-3)
#define KPX_REPLY_QUERY 5

/* PluginMessage ids */
#define KPX_PLUGIN_MSG_PING 0
#define KPX_PLUGIN_MSG_SCALER 1

/* Apply and callback status codes */
#define KPX_OK 0
#define KPX_STOPPED 1        /* break, empty area, tile not obtained, type not supported */
#define KPX_WORKER_STOPPED 2 /* the same, from the row, two-pass and convolution workers */
#define KPX_NOT_MINE (-1)    /* PrepareApply/FinishApply: settings are not the filter's */
#define KPX_NO_MEMORY (-2)   /* an allocation or a fetch failed */
/* A registered filter whose algorithm this build of the module does not hold:
 * its CreateDefaultSettings and SettingsFromBlob return null, its other
 * callbacks this status. */
#define KPX_NOT_AVAILABLE (-4)

/* Four-character codes of the module: the four bytes in reading order, read as
 * a little-endian 32-bit value ("fflt" is 0x746c6666). */
#define KPX_FOURCC(a, b, c, d)                                                                 \
    ((uint32_t)(uint8_t)(a) | ((uint32_t)(uint8_t)(b) << 8) | ((uint32_t)(uint8_t)(c) << 16) | \
     ((uint32_t)(uint8_t)(d) << 24))
#define KPX_BLOB_MAGIC KPX_FOURCC('f', 'f', 'l', 't')
#define KPX_FILTER_MAGIC 0x626d6633u /* bytes "3fmb" in memory */

/* ------------------------------------------------------------------------ */
/* Image records                                                             */
/* ------------------------------------------------------------------------ */

/* Colour mode word (BM_INFO) */
#define KPX_TYPE_MASK 0x70000000u
#define KPX_TYPE_U8 0x30000000u
#define KPX_TYPE_U16 0x40000000u
#define KPX_TYPE_F32 0x50000000u
#define KPX_MODE_COMPONENTS(mode) (((mode) >> 24) & 0xFu)
#define KPX_MODE_BITS_PER_PIXEL(mode) (((mode) >> 8) & 0xFFu)

/* Pixel flags (BM_INFO, BM_TILE) */
#define KPX_PIXEL_ALPHA 0x100u /* every pixel starts with a straight alpha component */

/* Tile format word (BM_TILE): bits 24-27 components, bits 28-30 the component
 * type as in the colour mode, bits 0-7 bits per pixel. */
#define KPX_TILE_COMPONENTS(format) (((format) >> 24) & 0xFu)
#define KPX_TILE_BITS_PER_PIXEL(format) ((format)&0xFFu)

/* ObtainTile access modes */
#define KPX_ACCESS_READ 0x1u
#define KPX_ACCESS_WRITE 0x2u
#define KPX_ACCESS_SCRATCH 0x4u /* read and write in, never written back */
#define KPX_ACCESS_PLAIN 0x100u
#define KPX_ACCESS_FLAGS 0x200u /* copy the pixel flags into the tile */
#define KPX_TILE_READ 513u
#define KPX_TILE_WRITE 514u
#define KPX_TILE_READWRITE 515u
#define KPX_TILE_SCRATCH 516u

/* ObtainTile `extra` word */
#define KPX_EXTRA_WRAP 0x2u      /* pixels outside the image wrap round (else clamp) */
#define KPX_EXTRA_READ_DEST 0x4u /* read tiles from what this application wrote so far */

/* Border modes stored in settings records; passed on as `extra`. */
#define KPX_BORDER_CLAMP 1
#define KPX_BORDER_WRAP 2

typedef struct RECT32 {
    int32_t x1, y1, x2, y2; /* x2 and y2 exclusive */
} RECT32;

typedef struct BM_INFO {
    uint32_t size;         /*  0: sizeof(BM_INFO), set by the host */
    uint32_t reserved0;    /*  4 */
    void* host;            /*  8: host-private */
    uint32_t pixel_flags;  /* 16: KPX_PIXEL_ALPHA */
    uint32_t colour_mode;  /* 20: component type, components, bits per pixel */
    int32_t width;         /* 24: image width in pixels */
    int32_t height;        /* 28: image height in pixels */
    int32_t tile_width;    /* 32: tile grid width */
    int32_t tile_height;   /* 36: tile grid height (line fetcher strip height) */
    uint8_t reserved1[24]; /* 40: host-private */
    RECT32 area;           /* 64: the area to process */
} BM_INFO;

typedef struct BM_TILE {
    void* host;           /*  0: host-private */
    int32_t width;        /*  8: pixels per line of the tile's data */
    int32_t height;       /* 12: lines of the tile's data */
    void* data;           /* 16: first component of the top-left pixel */
    int32_t line_bytes;   /* 24: bytes from one line to the next */
    uint32_t pixel_flags; /* 28: BM_INFO pixel flags when asked with 0x200, else 0 */
    uint32_t format;      /* 32: components, type, bits per pixel */
    RECT32 rect;          /* 36: the image area the tile covers */
    uint32_t reserved;    /* 52 */
} BM_TILE;

/* Settings blob header; the settings record follows it byte for byte. */
typedef struct KPX_BLOB_HEADER {
    uint32_t magic; /* "fflt" */
    uint32_t size;  /* 16 + size of the settings record */
    uint64_t zero;
} KPX_BLOB_HEADER;

/* ------------------------------------------------------------------------ */
/* Filter record                                                             */
/* ------------------------------------------------------------------------ */

typedef struct BaseThread BaseThread; /* a host thread, tested with TestBreak */
typedef void* (*KpxBlobAllocator)(size_t size);

typedef void* (*KpxCreateDefaultSettings)(void* ctx, void* container);
typedef int32_t (*KpxFreeSettings)(void* ctx, void* settings);
typedef void* (*KpxSettingsToBlob)(void* ctx, void* settings, KpxBlobAllocator allocate);
typedef void* (*KpxSettingsFromBlob)(void* ctx, const void* blob);
typedef int32_t (*KpxPrepareApply)(void* ctx, BM_INFO* info, void* settings);
typedef int32_t (*KpxFinishApply)(void* ctx, BM_INFO* info, void* settings);
typedef int32_t (*KpxExecute)(void* ctx, BM_INFO* info, void* settings, uint8_t show_dialog);

typedef struct BitmapFilterDescriptor {
    uint32_t magic;                                 /*  0: KPX_FILTER_MAGIC */
    uint32_t reserved;                              /*  4 */
    KpxCreateDefaultSettings CreateDefaultSettings; /*  8 */
    KpxFreeSettings FreeSettings;                   /* 16 */
    KpxSettingsToBlob SettingsToBlob;               /* 24 */
    KpxSettingsFromBlob SettingsFromBlob;           /* 32 */
    KpxPrepareApply PrepareApply;                   /* 40 */
    KpxFinishApply FinishApply;                     /* 48 */
    KpxExecute Execute;                             /* 56 */
    uint64_t capabilities;                          /* 64 */
} BitmapFilterDescriptor;

/* ------------------------------------------------------------------------ */
/* The scaler the module offers (PluginMessage id 1)                         */
/* ------------------------------------------------------------------------ */

/* Resamples a src_w x src_h block of interleaved pixels into dst_w x dst_h.
 * The component type and count come from `colour_mode` (BM_INFO encoding).
 * Reduction averages whole source boxes, enlargement repeats the nearest
 * pixel. Returns KPX_OK, or KPX_STOPPED for an unsupported mode or size. */
typedef int32_t (*KpxScaleFn)(uint32_t colour_mode, const void* src, int32_t src_line_bytes,
                              int32_t src_w, int32_t src_h, void* dst, int32_t dst_line_bytes,
                              int32_t dst_w, int32_t dst_h);

typedef struct KPX_BITMAP_SERVICE {
    uint32_t size;
    KpxScaleFn scale; /* the slot used for scaled tile requests */
} KPX_BITMAP_SERVICE;

typedef struct KPX_SERVICE_STATE {
    uint32_t size;
    int32_t scaler_pending; /* the module clears it once its scaler is in place */
} KPX_SERVICE_STATE;

/* What `data` points to for PluginMessage id 1. */
typedef struct KPX_SCALER_MESSAGE {
    KPX_BITMAP_SERVICE* service;
    KPX_SERVICE_STATE* state;
} KPX_SCALER_MESSAGE;

/* ------------------------------------------------------------------------ */
/* Host operation groups                                                     */
/* ------------------------------------------------------------------------ */

typedef struct KPX_STRING KPX_STRING;           /* host string, UTF-8 inside */
typedef struct KPX_STRINGTABLE KPX_STRINGTABLE; /* a module's loaded string table */

typedef struct KPX_SOURCE_LOCATION {
    const char* file;
    int32_t line;
    int32_t reserved;
} KPX_SOURCE_LOCATION;

#define KPX_GROUP_HAS(group, field)                                                     \
    ((group) != NULL &&                                                                 \
     (group)->size >= offsetof(__typeof__(*(group)), field) + sizeof((group)->field) && \
     (group)->field != NULL)

typedef struct KPX_REGISTRY_API {
    uint32_t size;
    uint8_t (*RegisterFilterPlugin)(int32_t version, int32_t type, int32_t plugin_id,
                                    const KPX_STRING* name, const BitmapFilterDescriptor* record,
                                    int32_t record_size);
} KPX_REGISTRY_API;

typedef struct KPX_MEMORY_API {
    uint32_t size;
    void* (*HostAlloc)(size_t size, const KPX_SOURCE_LOCATION* where);
    void (*HostFree)(void* block);
    /* Runs `destructor` on the object, then frees it (HostAlloc'd). */
    void (*HostDelete)(void* object, void (*destructor)(void* object));
} KPX_MEMORY_API;

typedef struct KPX_BITMAP_API {
    uint32_t size;
    BM_TILE* (*ObtainTile)(BM_INFO* info, const RECT32* rect, int32_t width, int32_t height,
                           uint32_t mode, uint32_t extra);
    void (*ReleaseTile)(BM_INFO* info, BM_TILE* tile, uint8_t write_back);
    void (*NotifyBitmapChanged)(BM_INFO* info);
    /* Copies `src` into `dst`, scaling to dst's size the way scaled tile
     * requests are served. Returns KPX_OK or KPX_STOPPED. */
    int32_t (*CopyScaledTile)(BM_INFO* info, const BM_TILE* src, BM_TILE* dst);
} KPX_BITMAP_API;

typedef struct KPX_PROGRESS_API {
    uint32_t size;
    void* (*BeginProgress)(BM_INFO* info);
    void (*SetProgress)(BM_INFO* info, void* handle, int32_t done, int32_t total,
                        const KPX_STRING* caption);
    void (*EndProgress)(BM_INFO* info, void* handle);
    uint8_t (*TestBreak)(BaseThread* thread); /* true when the user asked to stop */
} KPX_PROGRESS_API;

typedef struct KPX_STRING_API {
    uint32_t size;
    KPX_STRING* (*Create)(const char* utf8); /* a new string; never null for valid UTF-8 */
    void (*Free)(KPX_STRING* string);        /* null is ignored */
    const char* (*Utf8)(const KPX_STRING* string);
} KPX_STRING_API;

typedef struct KPX_RESOURCE_API {
    uint32_t size;
    /* Loads the string table from a module's resource folder; a second load of
     * the same folder returns the same table and only counts one more use. */
    KPX_STRINGTABLE* (*LoadStringTable)(const char* resource_folder);
    /* A new string with that id; an empty string for an unknown id. */
    KPX_STRING* (*GetString)(KPX_STRINGTABLE* table, int32_t id);
    void (*ReleaseStringTable)(KPX_STRINGTABLE* table);
} KPX_RESOURCE_API;

typedef struct KPX_SYSTEM_API {
    uint32_t size;
    /* Hands the module's host-client object to the host with the module
     * context given at start. */
    void (*AttachModuleContext)(void* client, void* module_context);
    /* A fault the module cannot go on from: prints "Stop", file and line. */
    void (*CriticalStop)(const char* text, const char* file, int32_t line);
} KPX_SYSTEM_API;

/* ---- settings containers and preferences ---- */

/* A keyed container of typed values (booleans, integers, reals). The host's
 * per-plugin preferences are such containers; a host may also hand one to
 * CreateDefaultSettings. */
typedef struct KPX_CONTAINER KPX_CONTAINER;

typedef struct KPX_PREFS_API {
    uint32_t size;
    KPX_CONTAINER* (*ContainerCreate)(void);
    void (*ContainerFree)(KPX_CONTAINER* container); /* null is ignored */
    /* Getters answer `fallback` when the key is absent or of another type. */
    uint8_t (*GetBool)(const KPX_CONTAINER* container, int32_t key, uint8_t fallback);
    int32_t (*GetInt)(const KPX_CONTAINER* container, int32_t key, int32_t fallback);
    double (*GetReal)(const KPX_CONTAINER* container, int32_t key, double fallback);
    void (*SetBool)(KPX_CONTAINER* container, int32_t key, uint8_t value);
    void (*SetInt)(KPX_CONTAINER* container, int32_t key, int32_t value);
    void (*SetReal)(KPX_CONTAINER* container, int32_t key, double value);
    /* A fresh copy of the preferences stored under `id` (empty when none);
     * the caller frees it. Null only when the host has no memory. */
    KPX_CONTAINER* (*GetPluginPreferences)(int32_t id);
    /* Stores a copy of `container` under `id`. */
    uint8_t (*SetPluginPreferences)(int32_t id, const KPX_CONTAINER* container);
} KPX_PREFS_API;

/* ---- dialogs and user areas ---- */

/* Real-number formats of dialog fields: multi-character constants whose first
 * letter is the most significant byte. */
#define KPX_FORMAT_REAL 0x66726561u    /* "frea": a plain number */
#define KPX_FORMAT_PERCENT 0x66706374u /* "fpct": shows value x 100 with % */
#define KPX_FORMAT_DEGREE 0x66646772u  /* "fdgr": holds radians, shows degrees */

typedef struct KPX_DIALOG KPX_DIALOG;     /* a host dialog */
typedef struct KPX_USERAREA KPX_USERAREA; /* a host user area attached to a gadget */

/* What the module's dialog object answers; `self` is handed back on every
 * call. Each returns true when it handled the call. */
typedef struct KPX_DIALOG_CALLBACKS {
    uint32_t size;
    void* self;
    uint8_t (*CreateLayout)(void* self);
    uint8_t (*InitValues)(void* self);
    uint8_t (*Command)(void* self, int32_t gadget);
} KPX_DIALOG_CALLBACKS;

/* What the module's user area object answers. The host calls Draw when the
 * area needs drawing (after a redraw request, or when shown). */
typedef struct KPX_USERAREA_CALLBACKS {
    uint32_t size;
    void* self;
    void (*Draw)(void* self, int32_t width, int32_t height);
} KPX_USERAREA_CALLBACKS;

typedef struct KPX_DIALOG_API {
    uint32_t size;
    KPX_DIALOG* (*Create)(const KPX_DIALOG_CALLBACKS* callbacks);
    void (*Free)(KPX_DIALOG* dialog); /* null is ignored */
    /* Opens the dialog modally at (x, y), -1 for the host's choice, and runs
     * it on the calling thread: CreateLayout, InitValues, then Command for
     * each change of a gadget. True when the user confirmed. */
    uint8_t (*OpenModal)(KPX_DIALOG* dialog, int32_t x, int32_t y);
    /* Builds the dialog from the layout with that id in the module's resource
     * folder (the folder its string table came from). */
    uint8_t (*LoadLayout)(KPX_DIALOG* dialog, KPX_STRINGTABLE* resources, int32_t layout_id);

    /* Gadget values. A set also gives the range and step (and for reals the
     * format); the host clamps what the user enters to that range. */
    uint8_t (*SetReal)(KPX_DIALOG* dialog, int32_t gadget, double value, double min, double max,
                       double step, uint32_t format);
    uint8_t (*SetInt)(KPX_DIALOG* dialog, int32_t gadget, int32_t value, int32_t min, int32_t max,
                      int32_t step);
    uint8_t (*SetBool)(KPX_DIALOG* dialog, int32_t gadget, uint8_t value);
    uint8_t (*GetReal)(KPX_DIALOG* dialog, int32_t gadget, double* value);
    uint8_t (*GetInt)(KPX_DIALOG* dialog, int32_t gadget, int32_t* value);
    uint8_t (*GetBool)(KPX_DIALOG* dialog, int32_t gadget, uint8_t* value);

    /* Groups whose gadgets the module makes at run time: flush removes the
     * group's gadgets, AddRealField appends one, GroupChanged ends a rebuild. */
    uint8_t (*GroupFlush)(KPX_DIALOG* dialog, int32_t group);
    uint8_t (*AddRealField)(KPX_DIALOG* dialog, int32_t group, int32_t gadget);
    uint8_t (*GroupChanged)(KPX_DIALOG* dialog, int32_t group);

    /* User areas: attach one to a user-area gadget of the layout. */
    KPX_USERAREA* (*AttachUserArea)(KPX_DIALOG* dialog, int32_t gadget,
                                    const KPX_USERAREA_CALLBACKS* callbacks);
    /* Asks the host to call Draw soon, on the dialog's thread. May be called
     * from any thread (a finished preview thread asks for its result to be
     * drawn). */
    void (*Redraw)(KPX_USERAREA* area);
    /* Inside Draw: shows the pixels of `tile` (the image's component type and
     * format) scaled to fit the area. */
    void (*DrawTile)(KPX_USERAREA* area, const BM_INFO* info, const BM_TILE* tile);

    /* A bitmap for previews: a copy of `image`'s area, scaled down to fit
     * max_width x max_height (never enlarged), that filters read and write
     * like any image; with `view` set, the bitmap the host shows as its own
     * image view instead (full size; its changes are shown, never kept).
     * Writes to it never reach the document. Null when the host has none. */
    BM_INFO* (*CreatePreviewBitmap)(const BM_INFO* image, int32_t max_width, int32_t max_height,
                                    uint8_t view);
    void (*FreePreviewBitmap)(BM_INFO* bitmap); /* null is ignored */
} KPX_DIALOG_API;

/* ---- threads ---- */

typedef void (*KpxThreadMain)(void* self, BaseThread* thread);

typedef struct KPX_THREAD_API {
    uint32_t size;
    BaseThread* (*Create)(KpxThreadMain main, void* self, const char* name);
    void (*Free)(BaseThread* thread);     /* ends and waits first; null is ignored */
    uint8_t (*Start)(BaseThread* thread); /* runs main(self, thread) on a new thread */
    /* Asks the thread to stop (TestBreak answers true on it) and, with wait,
     * waits until its main has returned. */
    void (*End)(BaseThread* thread, uint8_t wait);
    uint8_t (*IsRunning)(BaseThread* thread);
    /* The status call made around a stop: 3 before ending, 2 after. */
    void (*SetStatus)(BaseThread* thread, int32_t status);
} KPX_THREAD_API;

/* ---- locks ---- */

typedef struct KPX_LOCK KPX_LOCK;

typedef struct KPX_LOCK_API {
    uint32_t size;
    KPX_LOCK* (*Create)(void);
    void (*Free)(KPX_LOCK* lock);    /* null is ignored */
    uint8_t (*Lock)(KPX_LOCK* lock); /* false when the host refuses */
    void (*Unlock)(KPX_LOCK* lock);
} KPX_LOCK_API;

/* ---- jobs ---- */

/* The host's job system: a fixed number of worker threads, known before a
 * run and unchanged while any job group exists; groups of jobs that run on
 * the workers in parallel; and serial queues whose jobs run one at a time in
 * the order they were queued.
 *
 * A job is the module's record (`self`) and two callbacks. `run` does the
 * work and returns KPX_OK or a failure status; on failure it may fill
 * `failure` with the place that failed (the group keeps the first failure).
 * `done` is called once, when the host and the module have both let go of
 * the job: after it ran, after it was cancelled, or when it was freed
 * without ever being queued. It frees the record.
 *
 * Every handle the module creates it frees: JobFree drops the module's hold
 * on a job (a queued job still runs), GroupFree cancels and waits for a group
 * still running, QueueFree waits until its queue is empty. A job must not
 * wait for a group, a job or a queue: the workers it would wait for may all
 * be busy with jobs waiting likewise. */
typedef struct KPX_JOB KPX_JOB;
typedef struct KPX_JOB_GROUP KPX_JOB_GROUP;
typedef struct KPX_JOB_QUEUE KPX_JOB_QUEUE;

/* The status of a job that never ran because its group was cancelled, and
 * the result of such a group. */
#define KPX_JOB_CANCELLED (-5)

typedef int32_t (*KpxJobRun)(void* self, KPX_SOURCE_LOCATION* failure);
typedef void (*KpxJobDone)(void* self);

typedef struct KPX_JOB_API {
    uint32_t size;
    /* The number of worker threads, at least 1. */
    int32_t (*WorkerCount)(void);
    /* Inside a job of a group: the index of the worker running it, from 0 to
     * WorkerCount() - 1. No two jobs running at the same time share an index,
     * and a worker keeps its index from one job to the next where it can.
     * -1 on a thread that runs no job of a group. */
    int32_t (*WorkerIndex)(void);

    /* A new job; null when the host has no memory (`done` is not called). */
    KPX_JOB* (*JobCreate)(KpxJobRun run, KpxJobDone done, void* self);
    void (*JobFree)(KPX_JOB* job); /* null is ignored */
    /* Waits until a queued job has run and answers its status, or
     * KPX_JOB_CANCELLED when it was cancelled or never queued. */
    int32_t (*JobWait)(KPX_JOB* job);

    KPX_JOB_GROUP* (*GroupCreate)(void);
    void (*GroupFree)(KPX_JOB_GROUP* group); /* null is ignored */
    /* Adds a job that is in no group or queue yet; false once the group was
     * enqueued. The group holds the job until it has run. */
    uint8_t (*GroupAdd)(KPX_JOB_GROUP* group, KPX_JOB* job);
    /* Starts the group's jobs on the workers, in the order they were added.
     * Once only. */
    uint8_t (*GroupEnqueue)(KPX_JOB_GROUP* group);
    /* Waits, without a time-out, until every job of the group has run or was
     * cancelled; returns at once for a group never enqueued. */
    void (*GroupWait)(KPX_JOB_GROUP* group);
    /* After GroupWait: KPX_OK when every job ran and returned KPX_OK; else
     * the status of the first job that failed (with its place in `failure`
     * when not null), or KPX_JOB_CANCELLED when jobs were cancelled. */
    int32_t (*GroupResult)(KPX_JOB_GROUP* group, KPX_SOURCE_LOCATION* failure);
    /* Jobs of the group that have not started do not run. Running jobs run
     * to their end. */
    void (*GroupCancel)(KPX_JOB_GROUP* group);

    /* A strictly serial queue; `name` is for the host's display only. */
    KPX_JOB_QUEUE* (*QueueCreate)(const char* name);
    void (*QueueFree)(KPX_JOB_QUEUE* queue); /* null is ignored */
    /* Queues a job that is in no group or queue yet. It runs after every job
     * queued before it and never at the same time as another job of the
     * queue; when the queue is idle it runs at once on the calling thread,
     * before the call returns. */
    uint8_t (*QueueEnqueue)(KPX_JOB_QUEUE* queue, KPX_JOB* job);
} KPX_JOB_API;

typedef struct KPX_HOST {
    int32_t version; /* first word: the host interface version */
    uint32_t size;   /* sizeof(KPX_HOST) as the host built it */
    const KPX_REGISTRY_API* registry;
    const KPX_MEMORY_API* memory;
    const KPX_BITMAP_API* bitmap;
    const KPX_PROGRESS_API* progress;
    const KPX_STRING_API* string;
    const KPX_RESOURCE_API* resource;
    const KPX_PREFS_API* prefs;
    const KPX_DIALOG_API* dialog;
    const KPX_THREAD_API* thread;
    const KPX_LOCK_API* lock;
    const KPX_JOB_API* job;
    const KPX_SYSTEM_API* system;
} KPX_HOST;

/* The module's one entry point. */
typedef int32_t (*KpxMainFn)(int32_t message, void* arg1, void* arg2, void* arg3);
#define KPX_ENTRY_NAME "kpx_main"
#define KPX_MODULE_IDENTIFIER "net.tavro.kpx.bitmapfilter"

#ifdef __cplusplus
} /* extern "C" */

/* Layouts the two sides rely on. */
static_assert(sizeof(RECT32) == 16);
static_assert(offsetof(BM_INFO, pixel_flags) == 16);
static_assert(offsetof(BM_INFO, colour_mode) == 20);
static_assert(offsetof(BM_INFO, tile_width) == 32);
static_assert(offsetof(BM_INFO, tile_height) == 36);
static_assert(offsetof(BM_INFO, area) == 64);
static_assert(sizeof(BM_INFO) == 80);
static_assert(offsetof(BM_TILE, data) == 16);
static_assert(offsetof(BM_TILE, line_bytes) == 24);
static_assert(offsetof(BM_TILE, pixel_flags) == 28);
static_assert(offsetof(BM_TILE, format) == 32);
static_assert(offsetof(BM_TILE, rect) == 36);
static_assert(sizeof(BM_TILE) == 56);
static_assert(sizeof(KPX_BLOB_HEADER) == 16);
static_assert(offsetof(BitmapFilterDescriptor, CreateDefaultSettings) == 8);
static_assert(offsetof(BitmapFilterDescriptor, FreeSettings) == 16);
static_assert(offsetof(BitmapFilterDescriptor, SettingsToBlob) == 24);
static_assert(offsetof(BitmapFilterDescriptor, SettingsFromBlob) == 32);
static_assert(offsetof(BitmapFilterDescriptor, PrepareApply) == 40);
static_assert(offsetof(BitmapFilterDescriptor, FinishApply) == 48);
static_assert(offsetof(BitmapFilterDescriptor, Execute) == 56);
static_assert(offsetof(BitmapFilterDescriptor, capabilities) == 64);
static_assert(sizeof(BitmapFilterDescriptor) == KPX_FILTER_RECORD_SIZE);
static_assert(offsetof(KPX_HOST, version) == 0);
static_assert(offsetof(KPX_HOST, job) == 88);
static_assert(KPX_BLOB_MAGIC == 0x746c6666u);
#endif

#endif /* KPX_API_H */
