/* A pointer and a keyboard for end-to-end tests in KWin's Wayland session,
 * which on a virtual output has neither: they come through KWin's fake input
 * protocol, which KWin grants only to a program whose desktop file names it
 * (X-KDE-Wayland-Interfaces=org_kde_kwin_fake_input). One connection for the
 * whole run, since input that comes and goes loses an open menu's grab. It
 * reads commands, one a line:
 *   move X Y        put the pointer at X,Y of the screen
 *   click X Y B     move there, press and release button B (1 left, 3 right)
 *   key CODE        press and release the key of Linux input code CODE
 *   kwin_input < commands */
#define _DEFAULT_SOURCE // usleep
#include "fake-input-client.h"

#include <linux/input-event-codes.h>
#include <stdio.h>
#include <string.h>
#include <unistd.h>
#include <wayland-client.h>

static struct org_kde_kwin_fake_input *input;

static void global(void *data, struct wl_registry *registry, uint32_t name, const char *interface,
                   uint32_t version) {
    (void)data;
    if (strcmp(interface, org_kde_kwin_fake_input_interface.name) == 0 && version >= 4)
        input = wl_registry_bind(registry, name, &org_kde_kwin_fake_input_interface, 4);
}
static void global_remove(void *data, struct wl_registry *registry, uint32_t name) {
    (void)data;
    (void)registry;
    (void)name;
}
static const struct wl_registry_listener listener = {global, global_remove};

static struct wl_display *display;

static void move_to(unsigned x, unsigned y) {
    org_kde_kwin_fake_input_pointer_motion_absolute(input, wl_fixed_from_int((int)x),
                                                    wl_fixed_from_int((int)y));
    wl_display_roundtrip(display);
}

static void button(int b, int pressed) {
    org_kde_kwin_fake_input_button(input, b == 3 ? BTN_RIGHT : BTN_LEFT,
                                   pressed ? WL_POINTER_BUTTON_STATE_PRESSED
                                           : WL_POINTER_BUTTON_STATE_RELEASED);
    wl_display_roundtrip(display);
}

static void key(unsigned code, int pressed) {
    org_kde_kwin_fake_input_keyboard_key(
        input, code, pressed ? WL_KEYBOARD_KEY_STATE_PRESSED : WL_KEYBOARD_KEY_STATE_RELEASED);
    wl_display_roundtrip(display);
}

int main(void) {
    display = wl_display_connect(NULL);
    if (!display) {
        fprintf(stderr, "kwin_input: no Wayland display\n");
        return 1;
    }
    struct wl_registry *registry = wl_display_get_registry(display);
    wl_registry_add_listener(registry, &listener, NULL);
    wl_display_roundtrip(display);
    if (!input) {
        fprintf(stderr, "kwin_input: the compositor offers no fake input (version 4) to this "
                        "program\n");
        return 1;
    }
    org_kde_kwin_fake_input_authenticate(input, "Quendral Monitor tests", "end-to-end tests");
    wl_display_roundtrip(display);

    char line[128];
    while (fgets(line, sizeof line, stdin)) {
        unsigned x, y, code;
        int b;
        if (sscanf(line, "click %u %u %d", &x, &y, &b) == 3) {
            move_to(x, y);
            usleep(400000); /* the hover a hand makes before it clicks */
            button(b, 1);
            usleep(150000);
            button(b, 0);
        } else if (sscanf(line, "move %u %u", &x, &y) == 2) {
            move_to(x, y);
        } else if (sscanf(line, "key %u", &code) == 1) {
            key(code, 1);
            usleep(100000);
            key(code, 0);
        } else {
            fprintf(stderr, "kwin_input: unknown command: %s", line);
        }
        if (wl_display_get_error(display)) {
            fprintf(stderr, "kwin_input: the compositor closed the connection\n");
            return 1;
        }
    }
    org_kde_kwin_fake_input_destroy(input);
    wl_display_roundtrip(display);
    wl_display_disconnect(display);
    return 0;
}
