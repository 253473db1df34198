// The tray menu as a tray host reads it over D-Bus (com.canonical.dbusmenu):
// the host draws the menu itself from this description and reports back
// what the user does with it. The QMenu stays the one model of the menu; the
// exporter mirrors its actions and tells the host only what changed.
#pragma once

#include <QDBusAbstractAdaptor>
#include <QDBusArgument>
#include <QDBusVariant>
#include <QHash>
#include <QList>
#include <QObject>
#include <QPointer>
#include <QStringList>
#include <QVariantMap>

#include "DBusStruct.h"

#include <tuple>

class QAction;
class QMenu;

// One item with its properties: (ia{sv}).
struct DBusMenuItem {
    int id = 0;
    QVariantMap properties;
    auto fields() { return std::tie(id, properties); }
    auto fields() const { return std::tie(id, properties); }
};
// One item with the names of properties it no longer has: (ias).
struct DBusMenuItemKeys {
    int id = 0;
    QStringList properties;
    auto fields() { return std::tie(id, properties); }
    auto fields() const { return std::tie(id, properties); }
};
// A node of the layout tree: (ia{sv}av), the children each in a variant.
struct DBusMenuLayoutItem {
    int id = 0;
    QVariantMap properties;
    QList<DBusMenuLayoutItem> children;
};
// One event of a group: (isvu).
struct DBusMenuEvent {
    int id = 0;
    QString eventId;
    QDBusVariant data;
    uint timestamp = 0;
    auto fields() { return std::tie(id, eventId, data, timestamp); }
    auto fields() const { return std::tie(id, eventId, data, timestamp); }
};
using DBusMenuItemList = QList<DBusMenuItem>;
using DBusMenuItemKeysList = QList<DBusMenuItemKeys>;
using DBusMenuEventList = QList<DBusMenuEvent>;
using DBusMenuShortcut = QList<QStringList>;

// cppcheck-suppress unknownMacro
Q_DECLARE_METATYPE(DBusMenuItem)
Q_DECLARE_METATYPE(DBusMenuItemKeys)
Q_DECLARE_METATYPE(DBusMenuLayoutItem)
Q_DECLARE_METATYPE(DBusMenuEvent)

// The layout node's children are variants, each holding a node: written by
// hand. The other structures are written from their fields (DBusStruct.h).
QDBusArgument &operator<<(QDBusArgument &arg, const DBusMenuLayoutItem &item);
const QDBusArgument &operator>>(const QDBusArgument &arg, DBusMenuLayoutItem &item);

class DBusMenuExporter : public QObject {
    Q_OBJECT
  public:
    // Exports `menu` at `path` on the session bus, for as long as the
    // exporter lives.
    DBusMenuExporter(QMenu *menu, const QString &path, QObject *parent = nullptr);
    ~DBusMenuExporter() override;

    QString path() const { return _path; }
    uint revision() const { return _revision; }

    // What the host asks; the adaptor's methods forward here.
    DBusMenuLayoutItem layout(int parentId, int depth, const QStringList &names) const;
    DBusMenuItemList groupProperties(const QList<int> &ids, const QStringList &names) const;
    QVariant property(int id, const QString &name) const;
    // Whether the id names an item.
    bool handleEvent(int id, const QString &eventId);
    bool aboutToShow(int id);

  signals:
    // The host is about to show the menu (AboutToShow), or says it has
    // opened or closed it (Event "opened" / "closed" on the root).
    void menuAboutToShow();
    void menuOpened();
    void menuClosed();
    // The pointer is on an item of the open menu.
    void itemHovered();

    // To the adaptor, which sends them on the bus.
    void layoutUpdated(uint revision, int parent);
    void itemsPropertiesUpdated(const DBusMenuItemList &updated,
                                const DBusMenuItemKeysList &removed);

  protected:
    bool eventFilter(QObject *watched, QEvent *event) override;

  private:
    int idOf(QAction *action);
    QAction *actionOf(int id) const;
    QVariantMap propertiesOf(const QAction *action) const;
    void scheduleFlush();
    // Sends what changed since the last time: a new layout when items came
    // or went, else the properties that differ. Whether anything was sent.
    Q_INVOKABLE bool flush();

    QPointer<QMenu> _menu;
    QString _path;
    uint _revision = 1;
    int _nextId = 1;
    QHash<QAction *, int> _ids;
    // The properties of each item as the host last got them.
    QHash<int, QVariantMap> _sent;
    bool _layoutChanged = false;
    bool _flushScheduled = false;
};

// com.canonical.dbusmenu on the bus, forwarding to the exporter.
class DBusMenuAdaptor : public QDBusAbstractAdaptor {
    Q_OBJECT
    Q_CLASSINFO("D-Bus Interface", "com.canonical.dbusmenu")
    Q_PROPERTY(uint Version READ version)
    Q_PROPERTY(QString TextDirection READ textDirection)
    Q_PROPERTY(QString Status READ status)
    Q_PROPERTY(QStringList IconThemePath READ iconThemePath)
  public:
    explicit DBusMenuAdaptor(DBusMenuExporter *exporter);

    uint version() const { return 3; }
    QString textDirection() const;
    QString status() const { return QStringLiteral("normal"); }
    QStringList iconThemePath() const { return {}; }

  public slots:
    uint GetLayout(int parentId, int recursionDepth, const QStringList &propertyNames,
                   DBusMenuLayoutItem &layout);
    DBusMenuItemList GetGroupProperties(const QList<int> &ids, const QStringList &propertyNames);
    QDBusVariant GetProperty(int id, const QString &name);
    void Event(int id, const QString &eventId, const QDBusVariant &data, uint timestamp);
    QList<int> EventGroup(const DBusMenuEventList &events);
    bool AboutToShow(int id);
    QList<int> AboutToShowGroup(const QList<int> &ids, QList<int> &idErrors);

  signals:
    void ItemsPropertiesUpdated(const DBusMenuItemList &updatedProps,
                                const DBusMenuItemKeysList &removedProps);
    void LayoutUpdated(uint revision, int parent);
    void ItemActivationRequested(int id, uint timestamp);

  private:
    DBusMenuExporter *_exporter;
};
