#include "HostMenuWindows.h"

#include <QCoreApplication>
#include <QGuiApplication>

#include <xcb/xcb.h>

#include <cstdlib>
#include <memory>

namespace {

struct FreeDeleter {
    void operator()(void *p) const { std::free(p); }
};
template <typename T> using XcbReply = std::unique_ptr<T, FreeDeleter>;

xcb_connection_t *connection() {
    auto *x11 = qGuiApp ? qGuiApp->nativeInterface<QNativeInterface::QX11Application>() : nullptr;
    return x11 ? x11->connection() : nullptr;
}

} // namespace

HostMenuWindows::HostMenuWindows(QObject *parent) : QObject(parent) {
    _closedLater.setSingleShot(true);
    _closedLater.setInterval(0);
    connect(&_closedLater, &QTimer::timeout, this, &HostMenuWindows::menuClosed);
}

HostMenuWindows::~HostMenuWindows() {
    end();
}

bool HostMenuWindows::isAvailable() {
    return connection() != nullptr;
}

bool HostMenuWindows::isMenuPopup(quint32 window, bool checkMapped) const {
    xcb_connection_t *c = connection();
    if (!c) return false;
    const auto attributesCookie = xcb_get_window_attributes(c, window);
    const auto geometryCookie = xcb_get_geometry(c, window);
    const XcbReply<xcb_get_window_attributes_reply_t> attributes(
        xcb_get_window_attributes_reply(c, attributesCookie, nullptr));
    const XcbReply<xcb_get_geometry_reply_t> geometry(
        xcb_get_geometry_reply(c, geometryCookie, nullptr));
    if (!attributes || !geometry || !attributes->override_redirect) return false;
    if (checkMapped && attributes->map_state != XCB_MAP_STATE_VIEWABLE) return false;
    return geometry->width >= kMinMenuSide && geometry->height >= kMinMenuSide &&
           (geometry->width < _screenWidth || geometry->height < _screenHeight);
}

void HostMenuWindows::watch() {
    if (_watching) return;
    xcb_connection_t *c = connection();
    if (!c) return;
    const xcb_screen_t *screen = xcb_setup_roots_iterator(xcb_get_setup(c)).data;
    if (!screen) return;
    _root = screen->root;
    _screenWidth = screen->width_in_pixels;
    _screenHeight = screen->height_in_pixels;
    const XcbReply<xcb_get_window_attributes_reply_t> rootAttributes(
        xcb_get_window_attributes_reply(c, xcb_get_window_attributes(c, _root), nullptr));
    if (!rootAttributes) return;
    // Qt selects events of its own on the root window: they stay selected.
    _rootMaskBefore = rootAttributes->your_event_mask;
    const uint32_t mask = _rootMaskBefore | XCB_EVENT_MASK_SUBSTRUCTURE_NOTIFY;
    xcb_change_window_attributes(c, _root, XCB_CW_EVENT_MASK, &mask);
    _watching = true;
    _upAtStart.clear();
    _mapped.clear();
    _sawMapped = false;
    QCoreApplication::instance()->installNativeEventFilter(this);
    // The host may have put its menu up before it asked the monitor (the
    // request is not always waited for).
    const XcbReply<xcb_query_tree_reply_t> tree(
        xcb_query_tree_reply(c, xcb_query_tree(c, _root), nullptr));
    if (tree) {
        const xcb_window_t *children = xcb_query_tree_children(tree.get());
        const int count = xcb_query_tree_children_length(tree.get());
        for (int i = 0; i < count; ++i)
            if (isMenuPopup(children[i], true)) _upAtStart.insert(children[i]);
    }
    xcb_flush(c);
}

void HostMenuWindows::end() {
    if (!_watching) return;
    _watching = false;
    _upAtStart.clear();
    _mapped.clear();
    QCoreApplication::instance()->removeNativeEventFilter(this);
    if (xcb_connection_t *c = connection()) {
        xcb_change_window_attributes(c, _root, XCB_CW_EVENT_MASK, &_rootMaskBefore);
        xcb_flush(c);
    }
}

bool HostMenuWindows::nativeEventFilter(const QByteArray &eventType, void *message, qintptr *) {
    if (!_watching || eventType != "xcb_generic_event_t") return false;
    const auto *event = static_cast<const xcb_generic_event_t *>(message);
    xcb_window_t gone = XCB_NONE;
    switch (event->response_type & 0x7f) {
    case XCB_MAP_NOTIFY: {
        const auto *map = reinterpret_cast<const xcb_map_notify_event_t *>(event);
        if (map->event == _root && map->override_redirect && isMenuPopup(map->window, false)) {
            _mapped.insert(map->window);
            _sawMapped = true;
        }
        return false;
    }
    case XCB_UNMAP_NOTIFY: {
        const auto *unmap = reinterpret_cast<const xcb_unmap_notify_event_t *>(event);
        if (unmap->event == _root) gone = unmap->window;
        break;
    }
    case XCB_DESTROY_NOTIFY: {
        const auto *destroy = reinterpret_cast<const xcb_destroy_notify_event_t *>(event);
        if (destroy->event == _root) gone = destroy->window;
        break;
    }
    default:
        return false;
    }
    if (gone == XCB_NONE) return false;
    if (_mapped.remove(gone)) {
        // The last of the menu's popups went.
        if (_mapped.isEmpty()) closed();
    } else if (!_sawMapped && _upAtStart.contains(gone)) {
        closed();
    }
    return false;
}

void HostMenuWindows::closed() {
    // Told once, after the event at hand is handled.
    end();
    _closedLater.start();
}
