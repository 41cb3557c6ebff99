/* A host in C: loads the module, reads its descriptor, attaches and detaches a runtime, and checks that the
   module is unmapped after the last dlclose. */
#include <dlfcn.h>
#include <stdint.h>
#include <stdio.h>
#include <string.h>

struct descriptor {
    uint64_t version;
    const char* name;
    int (*attach_runtime)(void* host);
    void (*detach_runtime)(void);
    int (*create)(void* policy, void** out);
    const char* build_stamp;
};

struct host;
struct host_table {
    int (*write_log)(struct host*, uint32_t, const char*);
    int32_t (*service2)(struct host*, uint8_t, uint64_t, uint64_t, uint64_t, uint64_t);
    int32_t (*service3)(struct host*, uint8_t, uint64_t, uint64_t, uint64_t);
    void* (*get_env_property)(struct host*, const char*);
};
struct host {
    const struct host_table* table;
};

static int write_log(struct host* self, uint32_t level, const char* text) {
    (void)self;
    printf("%u %s\n", level, text);
    return 0;
}
static int32_t service2(struct host* self, uint8_t flag, uint64_t a, uint64_t b, uint64_t c, uint64_t d) {
    (void)self, (void)flag, (void)a, (void)b, (void)c, (void)d;
    return 0;
}
static int32_t service3(struct host* self, uint8_t flag, uint64_t a, uint64_t b, uint64_t c) {
    (void)self, (void)flag, (void)a, (void)b, (void)c;
    return 0;
}
static void* get_env_property(struct host* self, const char* key) {
    (void)self, (void)key;
    return NULL;
}
static const struct host_table table = {write_log, service2, service3, get_env_property};

static int failures = 0;

static void expect(int condition, const char* what) {
    if (!condition) {
        fprintf(stderr, "c_host: not so: %s\n", what);
        ++failures;
    }
}

static int is_mapped(const char* path) {
    const char* file = strrchr(path, '/') != NULL ? strrchr(path, '/') : path;
    char line[4096];
    int found = 0;
    FILE* maps = fopen("/proc/self/maps", "r");
    if (maps == NULL) {
        return -1;
    }
    while (fgets(line, sizeof line, maps) != NULL) {
        found |= strstr(line, file) != NULL;
    }
    fclose(maps);
    return found;
}

static void load_use_unload(const char* path) {
    struct host host = {&table};
    const struct descriptor* (*entry)(void) = NULL;
    const struct descriptor* module = NULL;
    void* out = &host;
    void* address = NULL;
    void* library = dlopen(path, RTLD_NOW);
    if (library == NULL) {
        fprintf(stderr, "c_host: %s\n", dlerror());
        ++failures;
        return;
    }
    expect(is_mapped(path) == 1, "a loaded module is mapped");
    address = dlsym(library, "zumod_get_entrypoint");
    if (address == NULL) {
        fprintf(stderr, "c_host: no entry point\n");
        ++failures;
        dlclose(library);
        return;
    }
    memcpy(&entry, &address, sizeof entry);
    module = entry();
    expect(module->version == UINT64_C(0x0002000000000000), "the version is 2 in the top 16 bits");
    expect(strcmp(module->name, "zu-client-camera") == 0, "the name is zu-client-camera");
    expect(strlen(module->build_stamp) == 20, "the build stamp is a date and a time");
    expect(module->attach_runtime(NULL) == 0, "a null host is refused");
    expect(module->attach_runtime(&host) == 1, "a host is attached");
    expect(module->create(NULL, NULL) == 0, "a request without anything is refused");
    expect(module->create(NULL, &out) == 0, "a request without a policy is refused");
    expect(out == &host, "a refusal leaves the slot unchanged");
    module->detach_runtime();
    expect(dlclose(library) == 0, "the module is closed");
    expect(is_mapped(path) == 0, "a closed module is not mapped");
}

int main(int argc, char** argv) {
    int round = 0;
    if (argc != 2) {
        fprintf(stderr, "usage: c_host MODULE\n");
        return 2;
    }
    for (round = 0; round < 100 && failures == 0; ++round) {
        load_use_unload(argv[1]);
    }
    printf("%d rounds\n", round);
    return failures == 0 ? 0 : 1;
}
