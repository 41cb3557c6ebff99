/* The smallest useful host in C: lends this machine's cameras over standard input and output.

       example-host-c /usr/lib/zu/zu-client-camera.so

   An interface of the SDK is a pointer to a table of functions, which take the object as their first
   argument. The numbers are the slots that the headers give. Slots 0 and 1 are never called. All objects here
   are static, so their counts are not kept: a Release that returns 1 says that the object still lives. */
#include <dlfcn.h>
#include <pthread.h>
#include <stdint.h>
#include <stdio.h>
#include <string.h>
#include <unistd.h>

/* Functions and data pointers have the same size and form where the module runs, but C has no cast between
 * them. */
union slot {
    void* data;
    void (*code)(void);
};
#define SLOT(f) \
    { .code = (void (*)(void))(f) }

typedef struct {
    const union slot* table;
} object;

static uint64_t add_ref(object* self) {
    (void)self;
    return 2;
}
static int64_t release(object* self) {
    (void)self;
    return 1;
}

/* ---- IZUModData: a text or an integer ---- */

struct value {
    const union slot* table;
    uint32_t type;
    const char* text;
    int64_t number;
};
static uint32_t get_type(struct value* self) {
    return self->type;
}
static const void* get_data(struct value* self) {
    return self->type == 4 ? (const void*)self->text : (const void*)&self->number;
}
static uint64_t get_size(struct value* self) {
    return self->type == 4 ? strlen(self->text) + 1 : sizeof self->number;
}
static const char* get_string(struct value* self) {
    return self->text;
}
static const void* get_nothing(struct value* self) {
    (void)self;
    return NULL;
}
static _Bool get_bool(struct value* self) {
    (void)self;
    return 0;
}
static int64_t get_int64(struct value* self) {
    return self->number;
}
static float get_float(struct value* self) {
    (void)self;
    return 0;
}
static struct value* clone(struct value* self) {
    return self;
}
static uint64_t get_pointer(struct value* self) {
    (void)self;
    return 0;
}
static const union slot value_table[15] = {
    [2] = SLOT(add_ref),      [3] = SLOT(release),    [4] = SLOT(get_type),     [5] = SLOT(get_data),
    [6] = SLOT(get_size),     [7] = SLOT(get_string), [8] = SLOT(get_nothing),  [9] = SLOT(get_bool),
    [10] = SLOT(get_int64),   [11] = SLOT(get_float), [12] = SLOT(get_nothing), [13] = SLOT(clone),
    [14] = SLOT(get_pointer),
};

/* ---- IZUModCreatePolicy: which interface is wanted ---- */

static struct value wanted_name = {value_table, 4, "IClientCameraPlugin", 0};
static struct value wanted_version = {value_table, 2, NULL, INT64_C(0x0002000000000000)};

static struct value* get_policy(object* self, const char* key) {
    (void)self;
    if (strcmp(key, "zu.module.interface.name") == 0) {
        return &wanted_name;
    }
    return strcmp(key, "zu.module.version") == 0 ? &wanted_version : NULL;
}
static const union slot policy_table[5] = {[2] = SLOT(add_ref), [3] = SLOT(release), [4] = SLOT(get_policy)};

/* ---- IZUModRuntime: a log, and the directory of the codec; not counted, so its slots begin at 0 ---- */

static struct value directory = {value_table, 4, ".", 0};

static int write_log(object* self, uint32_t level, const char* text) {
    (void)self, (void)level;
    return fprintf(stderr, "%s\n", text);
}
static int32_t service(object* self) {
    (void)self;
    return 0;
}
static struct value* get_env_property(object* self, const char* key) {
    (void)self;
    return strcmp(key, "zu.env.modules.dir") == 0 ? &directory : NULL;
}
static const union slot runtime_table[4] = {SLOT(write_log), SLOT(service), SLOT(service),
                                            SLOT(get_env_property)};

/* ---- IChannelStream: standard input and output ---- */

/* Two threads of the module write, and each message must stay whole. */
static pthread_mutex_t writing = PTHREAD_MUTEX_INITIALIZER;

static int stream_read(object* self, void* data, unsigned long size, unsigned long* done) {
    const ssize_t count = read(STDIN_FILENO, data, size);
    (void)self;
    *done = count > 0 ? (unsigned long)count : 0;
    return count > 0 ? 0 : -1;
}
static int stream_write(object* self, const void* data, unsigned long size, unsigned long* done) {
    ssize_t count = 1;
    (void)self;
    pthread_mutex_lock(&writing);
    for (*done = 0; *done < size && count > 0; *done += count > 0 ? (unsigned long)count : 0) {
        count = write(STDOUT_FILENO, (const char*)data + *done, size - *done);
    }
    pthread_mutex_unlock(&writing);
    return *done == size ? 0 : -1;
}
static const union slot stream_table[6] = {
    [2] = SLOT(add_ref), [3] = SLOT(release), [4] = SLOT(stream_read), [5] = SLOT(stream_write)};

/* ---- The module ---- */

struct descriptor {
    uint64_t version;
    const char* name;
    int (*attach_runtime)(const object* host);
    void (*detach_runtime)(void);
    int (*create)(const object* policy, object** out);
    const char* build_stamp;
};

static int call(object* plugin, int slot) {
    return ((int (*)(object*))plugin->table[slot].code)(plugin);
}

static int serve(const struct descriptor* module) {
    static const object policy = {policy_table}, stream = {stream_table};
    object* plugin = NULL;
    if (module->create(&policy, &plugin) != 1) {
        fprintf(stderr, "example-host-c: the module creates no plugin\n");
        return 1;
    }
    ((int (*)(object*, const object*))plugin->table[5].code)(plugin, &stream);
    call(plugin, 6);                                      /* Run, until a read fails */
    call(plugin, 7);                                      /* ExitInstance */
    ((int64_t(*)(object*))plugin->table[3].code)(plugin); /* Release */
    return 0;
}

int main(int argc, char** argv) {
    static const object runtime = {runtime_table};
    const struct descriptor* module;
    void* library;
    union slot entry = {NULL};
    int status;
    if (argc != 2) {
        fprintf(stderr, "usage: example-host-c MODULE\n");
        return 2;
    }
    library = dlopen(argv[1], RTLD_NOW);
    entry.data = library != NULL ? dlsym(library, "zumod_get_entrypoint") : NULL;
    if (entry.data == NULL) {
        fprintf(stderr, "example-host-c: %s\n", dlerror());
        return 1;
    }
    module = ((const struct descriptor* (*)(void))entry.code)();
    if (strrchr(argv[1], '/') != NULL) {
        static char path[4096];
        snprintf(path, sizeof path, "%.*s", (int)(strrchr(argv[1], '/') - argv[1]), argv[1]);
        directory.text = path;
    }
    module->attach_runtime(&runtime);
    status = serve(module);
    module->detach_runtime();
    dlclose(library);
    return status;
}
