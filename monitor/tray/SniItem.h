// The monitor's status item on D-Bus (org.kde.StatusNotifierItem), shown by
// the panels that draw tray items from D-Bus.
//
// Contract: a click on the icon, left or right, opens the menu, in every
// host. The item says ItemIsMenu, so a host that honours it (xfce4-panel,
// waybar) shows the exported menu on any click, drawing it itself. A host
// that asks for activation instead gets an error reply: one that falls back
// on it (Plasma) then draws the exported menu as for a right click. Where a
// host does neither (lxqt-panel 1.2) and Qt can place a menu of its own
// (X11), `activated` asks for that menu at the pointer, after
// kActivateGraceMs unless the host opened its own meanwhile.
#pragma once

#include "DBusStruct.h"

#include <QDBusAbstractAdaptor>
#include <QDBusArgument>
#include <QDBusContext>
#include <QDBusObjectPath>
#include <QIcon>
#include <QList>
#include <QObject>
#include <QPoint>
#include <QTimer>

#include <tuple>

class QMenu;
class DBusMenuExporter;

// One icon picture, ARGB32 in network byte order: (iiay).
struct SniIconPixmap {
    int width = 0;
    int height = 0;
    QByteArray bytes;
    auto fields() { return std::tie(width, height, bytes); }
    auto fields() const { return std::tie(width, height, bytes); }
};
using SniIconPixmapList = QList<SniIconPixmap>;
// (sa(iiay)ss): icon name, icon pixmaps, title, description.
struct SniToolTip {
    QString iconName;
    SniIconPixmapList iconPixmaps;
    QString title;
    QString description;
    auto fields() { return std::tie(iconName, iconPixmaps, title, description); }
    auto fields() const { return std::tie(iconName, iconPixmaps, title, description); }
};

// cppcheck-suppress unknownMacro
Q_DECLARE_METATYPE(SniIconPixmap)
Q_DECLARE_METATYPE(SniToolTip)

class SniItem : public QObject, protected QDBusContext {
    Q_OBJECT
  public:
    static constexpr const char *kItemPath = "/StatusNotifierItem";
    static constexpr const char *kMenuPath = "/MenuBar";

    // Exports the item and `menu` on the session bus under a name of its
    // own; register() then tells the watcher.
    SniItem(const QIcon &icon, const QString &iconName, const QString &toolTip, QMenu *menu,
            QObject *parent = nullptr);
    ~SniItem() override;

    // Whether the item and its menu are on the bus under the item's name.
    bool isExported() const { return _exported; }
    QString serviceName() const { return _serviceName; }
    DBusMenuExporter *menuExporter() const { return _menuExporter; }
    // Registers the item with the session's StatusNotifierWatcher, again
    // each time one appears. The item is registered by its object path, so
    // the watcher knows it by the connection's unique name: a host then has
    // no well-known name to watch, whose first "appeared" report would race
    // with its reading of the properties (GNOME's AppIndicator extension
    // clears the Id and Menu it has just read when that report comes late,
    // then fails to read them again and drops the item for good).
    void registerWithWatcher();
    // Whether the last registration was accepted and the watcher lists the
    // item.
    bool isRegistered() const { return _registered; }
    // Whether an entry of the watcher's RegisteredStatusNotifierItems, or
    // of its StatusNotifierItemRegistered/Unregistered signals, names this
    // item: hosts write it as the service name, "UNIQUE/PATH" or
    // "UNIQUE@PATH".
    bool isNamedBy(const QString &entry) const;
    // How often the item registers again after a host dropped it, per
    // watcher: a host that drops every registration is not fed forever.
    static constexpr int kMaxReregistrations = 3;
    int reregistrations() const { return _reregistrations; }

    // How long a host that asked for activation has to show its own menu
    // (Plasma does within a few milliseconds of the refusal) before the
    // monitor shows its own.
    static constexpr int kActivateGraceMs = 200;

    // A host asked for activation at the given point on the screen (a
    // click, where the host does not honour ItemIsMenu).
    void activate(int x, int y);
    // A host asked for the menu at the given point: as activate.
    void contextMenu(int x, int y);

  signals:
    // Show the menu Qt draws at that point: only where it can be placed
    // there (X11).
    void activated(int x, int y);
    // The watcher confirmed that it lists the item.
    void registrationConfirmed();
    // The host dropped the item again after the last registration allowed:
    // it will not show it. Once per watcher.
    void droppedForGood();
    // The host handed over an activation token for the window the click
    // that follows may lead to (Wayland's xdg-activation).
    void activationTokenGiven(const QString &token);

  private slots:
    void watcherDroppedItem(const QString &entry);
    void watcherOwnerChanged(const QString &name, const QString &oldOwner, const QString &newOwner);

  public:
    QString toolTipText() const { return _toolTip; }
    QString iconName() const { return _iconName; }
    SniIconPixmapList iconPixmaps() const { return _pixmaps; }

  private:
    // Reads the watcher's list once the registration was accepted: the
    // item counts as registered only when it is there.
    void confirmListed();
    // The host dropped the item: register again, within the bound.
    void registerAgain();

    QString _serviceName;
    QString _uniqueName;
    int _reregistrations = 0;
    bool _dropLogged = false;
    bool _givenUp = false;
    QString _iconName;
    QString _toolTip;
    SniIconPixmapList _pixmaps;
    DBusMenuExporter *_menuExporter = nullptr;
    bool _exported = false;
    bool _registered = false;
    // A refused activation, waiting to see whether the host shows its menu.
    QTimer _activateGrace;
    QPoint _activatedAt;
};

class SniItemAdaptor : public QDBusAbstractAdaptor {
    Q_OBJECT
    Q_CLASSINFO("D-Bus Interface", "org.kde.StatusNotifierItem")
    Q_PROPERTY(QString Category READ category)
    Q_PROPERTY(QString Id READ id)
    Q_PROPERTY(QString Title READ title)
    Q_PROPERTY(QString Status READ status)
    Q_PROPERTY(int WindowId READ windowId)
    Q_PROPERTY(QString IconThemePath READ iconThemePath)
    Q_PROPERTY(QString IconName READ iconName)
    Q_PROPERTY(SniIconPixmapList IconPixmap READ iconPixmap)
    Q_PROPERTY(QString OverlayIconName READ emptyName)
    Q_PROPERTY(SniIconPixmapList OverlayIconPixmap READ noPixmaps)
    Q_PROPERTY(QString AttentionIconName READ emptyName)
    Q_PROPERTY(SniIconPixmapList AttentionIconPixmap READ noPixmaps)
    Q_PROPERTY(QString AttentionMovieName READ emptyName)
    Q_PROPERTY(SniToolTip ToolTip READ toolTip)
    Q_PROPERTY(bool ItemIsMenu READ itemIsMenu)
    Q_PROPERTY(QDBusObjectPath Menu READ menu)
  public:
    explicit SniItemAdaptor(SniItem *item);

    QString category() const { return QStringLiteral("ApplicationStatus"); }
    QString id() const { return QStringLiteral("quendral-monitor"); }
    QString title() const { return QStringLiteral("Quendral Monitor"); }
    QString status() const { return QStringLiteral("Active"); }
    int windowId() const { return 0; }
    QString iconThemePath() const { return {}; }
    QString iconName() const { return _item->iconName(); }
    SniIconPixmapList iconPixmap() const { return _item->iconPixmaps(); }
    QString emptyName() const { return {}; }
    SniIconPixmapList noPixmaps() const { return {}; }
    SniToolTip toolTip() const;
    bool itemIsMenu() const { return true; }
    QDBusObjectPath menu() const { return QDBusObjectPath(SniItem::kMenuPath); }

  public slots:
    void ContextMenu(int x, int y);
    void Activate(int x, int y);
    void SecondaryActivate(int x, int y);
    void Scroll(int delta, const QString &orientation);
    // Plasma on Wayland hands over a token just before each click: the
    // window the click leads to (the alert) may take focus with it.
    void ProvideXdgActivationToken(const QString &token);

  signals:
    void NewTitle();
    void NewIcon();
    void NewAttentionIcon();
    void NewOverlayIcon();
    void NewToolTip();
    void NewStatus(const QString &status);

  private:
    SniItem *_item;
};
