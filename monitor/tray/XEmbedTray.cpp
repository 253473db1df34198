#include "XEmbedTray.h"

#include <QGuiApplication>

#include <xcb/xcb.h>

#include <cstdlib>
#include <string>

bool xembedTrayPresent() {
    auto *x11 = qGuiApp ? qGuiApp->nativeInterface<QNativeInterface::QX11Application>() : nullptr;
    xcb_connection_t *c = x11 ? x11->connection() : nullptr;
    if (!c) return false;
    int screen = 0;
    if (const char *display = std::getenv("DISPLAY")) {
        // ":0.1" names screen 1; most sessions have screen 0 alone.
        const std::string d = display;
        const size_t dot = d.rfind('.');
        if (dot != std::string::npos && d.find(':') < dot) {
            char *end = nullptr;
            const long n = std::strtol(d.c_str() + dot + 1, &end, 10);
            if (*end == '\0' && n >= 0 && n < 64) screen = static_cast<int>(n);
        }
    }
    const std::string name = "_NET_SYSTEM_TRAY_S" + std::to_string(screen);
    xcb_intern_atom_reply_t *atom = xcb_intern_atom_reply(
        c, xcb_intern_atom(c, 1, static_cast<uint16_t>(name.size()), name.c_str()), nullptr);
    if (!atom) return false;
    const xcb_atom_t selection = atom->atom;
    std::free(atom);
    if (selection == XCB_ATOM_NONE) return false; // never interned: nobody owns it
    xcb_get_selection_owner_reply_t *owner =
        xcb_get_selection_owner_reply(c, xcb_get_selection_owner(c, selection), nullptr);
    const bool present = owner && owner->owner != XCB_WINDOW_NONE;
    std::free(owner);
    return present;
}
