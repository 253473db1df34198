#include "ActivationToken.h"

#include <QByteArray>
#include <QGuiApplication>
#include <QString>
#include <QWidget>

#include <xcb/xcb.h>

#include <cstdlib>

namespace {

xcb_atom_t atom(xcb_connection_t *c, const char *name) {
    xcb_intern_atom_reply_t *reply = xcb_intern_atom_reply(
        c, xcb_intern_atom(c, 0, static_cast<uint16_t>(qstrlen(name)), name), nullptr);
    const xcb_atom_t a = reply ? reply->atom : xcb_atom_t{XCB_ATOM_NONE};
    std::free(reply);
    return a;
}

} // namespace

void prepareActivation(QWidget *window, const QString &token) {
    if (token.isEmpty() || window == nullptr) return;
    const QString platform = QGuiApplication::platformName();
    if (platform.startsWith(QLatin1String("wayland"))) {
        qputenv("XDG_ACTIVATION_TOKEN", token.toUtf8());
        return;
    }
    if (platform != QLatin1String("xcb")) return;
    auto *x11 = qGuiApp->nativeInterface<QNativeInterface::QX11Application>();
    xcb_connection_t *c = x11 ? x11->connection() : nullptr;
    if (c == nullptr) return;
    const xcb_atom_t startupId = atom(c, "_NET_STARTUP_ID");
    const xcb_atom_t utf8 = atom(c, "UTF8_STRING");
    if (startupId == XCB_ATOM_NONE || utf8 == XCB_ATOM_NONE) return;
    const QByteArray id = token.toUtf8();
    // winId() makes the native window, not yet mapped: the property is
    // there when the window manager first sees it.
    xcb_change_property(c, XCB_PROP_MODE_REPLACE, static_cast<xcb_window_t>(window->winId()),
                        startupId, utf8, 8, static_cast<uint32_t>(id.size()), id.constData());
    xcb_flush(c);
}

void endActivation() {
    qunsetenv("XDG_ACTIVATION_TOKEN");
}
