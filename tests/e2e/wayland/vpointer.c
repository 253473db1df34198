/* A pointer for end-to-end tests on a wlroots compositor's headless seat,
 * which has none: it creates one virtual pointer (wlroots' virtual pointer
 * protocol) and keeps it for its whole life, since a pointer that comes and
 * goes loses the grab of an open menu. It reads commands, one a line:
 *   move X Y        put the pointer at X,Y of the output
 *   click X Y B     move there, press and release button B (1 left, 3 right)
 *   vpointer WIDTH HEIGHT  < commands */
#define _DEFAULT_SOURCE // usleep
#include "wlr-virtual-pointer-client.h"

#include <linux/input-event-codes.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <time.h>
#include <unistd.h>
#include <wayland-client.h>

static struct zwlr_virtual_pointer_manager_v1 *manager;

static void global(void *data, struct wl_registry *registry, uint32_t name, const char *interface,
                   uint32_t version) {
    (void)data;
    (void)version;
    if (strcmp(interface, zwlr_virtual_pointer_manager_v1_interface.name) == 0)
        manager = wl_registry_bind(registry, name, &zwlr_virtual_pointer_manager_v1_interface, 1);
}
static void global_remove(void *data, struct wl_registry *registry, uint32_t name) {
    (void)data;
    (void)registry;
    (void)name;
}
static const struct wl_registry_listener listener = {global, global_remove};

static struct wl_display *display;
static struct zwlr_virtual_pointer_v1 *pointer;
static unsigned width, height;

/* Event times in milliseconds of the monotonic clock, as real devices give
 * them: toolkits compare them with the time a menu opened. */
static uint32_t now(void) {
    struct timespec ts;
    clock_gettime(CLOCK_MONOTONIC, &ts);
    return (uint32_t)(ts.tv_sec * 1000 + ts.tv_nsec / 1000000);
}

static void move_to(unsigned x, unsigned y) {
    zwlr_virtual_pointer_v1_motion_absolute(pointer, now(), x, y, width, height);
    zwlr_virtual_pointer_v1_frame(pointer);
    wl_display_roundtrip(display);
}

static void button(int b, int pressed) {
    zwlr_virtual_pointer_v1_button(pointer, now(), b == 3 ? BTN_RIGHT : BTN_LEFT,
                                   pressed ? WL_POINTER_BUTTON_STATE_PRESSED
                                           : WL_POINTER_BUTTON_STATE_RELEASED);
    zwlr_virtual_pointer_v1_frame(pointer);
    wl_display_roundtrip(display);
}

int main(int argc, char **argv) {
    if (argc != 3) {
        fprintf(stderr, "usage: vpointer WIDTH HEIGHT < commands\n");
        return 2;
    }
    width = (unsigned)atoi(argv[1]);
    height = (unsigned)atoi(argv[2]);
    display = wl_display_connect(NULL);
    if (!display) {
        fprintf(stderr, "vpointer: no Wayland display\n");
        return 1;
    }
    struct wl_registry *registry = wl_display_get_registry(display);
    wl_registry_add_listener(registry, &listener, NULL);
    wl_display_roundtrip(display);
    if (!manager) {
        fprintf(stderr, "vpointer: the compositor has no virtual pointers\n");
        return 1;
    }
    pointer = zwlr_virtual_pointer_manager_v1_create_virtual_pointer(manager, NULL);
    wl_display_roundtrip(display);

    char line[128];
    while (fgets(line, sizeof line, stdin)) {
        unsigned x, y;
        int b;
        if (sscanf(line, "click %u %u %d", &x, &y, &b) == 3) {
            move_to(x, y);
            usleep(400000); /* the hover a hand makes before it clicks */
            button(b, 1);
            usleep(150000);
            button(b, 0);
        } else if (sscanf(line, "move %u %u", &x, &y) == 2) {
            move_to(x, y);
        } else {
            fprintf(stderr, "vpointer: unknown command: %s", line);
        }
    }
    zwlr_virtual_pointer_v1_destroy(pointer);
    wl_display_roundtrip(display);
    wl_display_disconnect(display);
    return 0;
}
