#include "DBusMenuExporter.h"

#include <QAction>
#include <QActionEvent>
#include <QDBusConnection>
#include <QDBusMetaType>
#include <QGuiApplication>
#include <QKeySequence>
#include <QMenu>

// --- marshalling ---------------------------------------------------------------

QDBusArgument &operator<<(QDBusArgument &arg, const DBusMenuLayoutItem &item) {
    arg.beginStructure();
    arg << item.id << item.properties;
    // The children are variants, each holding a node like this one.
    arg.beginArray(qMetaTypeId<QDBusVariant>());
    for (const DBusMenuLayoutItem &child : item.children)
        arg << QDBusVariant(QVariant::fromValue(child));
    arg.endArray();
    arg.endStructure();
    return arg;
}

const QDBusArgument &operator>>(const QDBusArgument &arg, DBusMenuLayoutItem &item) {
    arg.beginStructure();
    arg >> item.id >> item.properties;
    item.children.clear();
    arg.beginArray();
    while (!arg.atEnd()) {
        QDBusVariant v;
        arg >> v;
        const QDBusArgument child = qvariant_cast<QDBusArgument>(v.variant());
        DBusMenuLayoutItem node;
        child >> node;
        item.children.append(node);
    }
    arg.endArray();
    arg.endStructure();
    return arg;
}

namespace {

void registerTypes() {
    static const bool done = [] {
        qDBusRegisterMetaType<DBusMenuItem>();
        qDBusRegisterMetaType<DBusMenuItemList>();
        qDBusRegisterMetaType<DBusMenuItemKeys>();
        qDBusRegisterMetaType<DBusMenuItemKeysList>();
        qDBusRegisterMetaType<DBusMenuLayoutItem>();
        qDBusRegisterMetaType<DBusMenuEvent>();
        qDBusRegisterMetaType<DBusMenuEventList>();
        qDBusRegisterMetaType<DBusMenuShortcut>();
        // The adaptor's signatures name the lists by these names.
        qRegisterMetaType<DBusMenuItemList>("DBusMenuItemList");
        qRegisterMetaType<DBusMenuItemKeysList>("DBusMenuItemKeysList");
        qRegisterMetaType<DBusMenuEventList>("DBusMenuEventList");
        return true;
    }();
    (void)done;
}

// The label from an action's text. Qt marks a mnemonic with "&" and a
// literal "&" with "&&"; the protocol marks a mnemonic with "_" and a literal
// "_" with "__". The first literal "&" goes out as "_&", as the menu's texts
// always have (it shows as itself, underlined where hosts show mnemonics).
QString labelOf(const QString &text) {
    QString label;
    bool marked = false;
    for (qsizetype i = 0; i < text.size(); ++i) {
        const QChar c = text[i];
        if (c == QLatin1Char('_')) {
            label += QLatin1String("__");
        } else if (c == QLatin1Char('&') && i + 1 < text.size()) {
            ++i;
            if (text[i] != QLatin1Char('&')) {
                label += QLatin1Char('_');
                label += text[i];
            } else {
                if (!marked) label += QLatin1Char('_');
                label += QLatin1Char('&');
            }
            marked = true;
        } else {
            label += c;
        }
    }
    return label;
}

// A key sequence as the protocol's list of key chords, each a list of
// modifier names and the key.
DBusMenuShortcut shortcutOf(const QKeySequence &sequence) {
    DBusMenuShortcut chords;
    for (int i = 0; i < sequence.count(); ++i) {
        const QKeyCombination combination = sequence[i];
        QStringList chord;
        const Qt::KeyboardModifiers mods = combination.keyboardModifiers();
        if (mods & Qt::ControlModifier) chord << QStringLiteral("Control");
        if (mods & Qt::AltModifier) chord << QStringLiteral("Alt");
        if (mods & Qt::ShiftModifier) chord << QStringLiteral("Shift");
        if (mods & Qt::MetaModifier) chord << QStringLiteral("Super");
        QString key = QKeySequence(combination.key()).toString(QKeySequence::PortableText);
        if (key == QLatin1String("+"))
            key = QStringLiteral("plus");
        else if (key == QLatin1String("-"))
            key = QStringLiteral("minus");
        chord << key;
        chords << chord;
    }
    return chords;
}

QVariantMap filtered(const QVariantMap &properties, const QStringList &names) {
    if (names.isEmpty()) return properties;
    QVariantMap kept;
    for (const QString &name : names)
        if (properties.contains(name)) kept.insert(name, properties.value(name));
    return kept;
}

} // namespace

// --- the exporter -------------------------------------------------------------------

DBusMenuExporter::DBusMenuExporter(QMenu *menu, const QString &path, QObject *parent)
    : QObject(parent), _menu(menu), _path(path) {
    registerTypes();
    for (QAction *action : menu->actions()) idOf(action);
    for (auto it = _ids.cbegin(); it != _ids.cend(); ++it)
        _sent.insert(it.value(), propertiesOf(it.key()));
    menu->installEventFilter(this);
    new DBusMenuAdaptor(this);
    QDBusConnection::sessionBus().registerObject(_path, this);
}

DBusMenuExporter::~DBusMenuExporter() {
    QDBusConnection::sessionBus().unregisterObject(_path);
    if (_menu) _menu->removeEventFilter(this);
}

int DBusMenuExporter::idOf(QAction *action) {
    auto it = _ids.constFind(action);
    if (it != _ids.cend()) return it.value();
    const int id = _nextId++;
    _ids.insert(action, id);
    return id;
}

QAction *DBusMenuExporter::actionOf(int id) const {
    if (!_menu) return nullptr;
    for (QAction *action : _menu->actions())
        if (_ids.value(action, -1) == id) return action;
    return nullptr;
}

QVariantMap DBusMenuExporter::propertiesOf(const QAction *action) const {
    QVariantMap p;
    if (action->isSeparator()) {
        p.insert(QStringLiteral("type"), QStringLiteral("separator"));
    } else {
        p.insert(QStringLiteral("label"), labelOf(action->text()));
        p.insert(QStringLiteral("enabled"), action->isEnabled());
        if (action->isCheckable()) {
            p.insert(QStringLiteral("toggle-type"), QStringLiteral("checkmark"));
            p.insert(QStringLiteral("toggle-state"), action->isChecked() ? 1 : 0);
        }
        if (!action->shortcut().isEmpty())
            p.insert(QStringLiteral("shortcut"),
                     QVariant::fromValue(shortcutOf(action->shortcut())));
    }
    p.insert(QStringLiteral("visible"), action->isVisible());
    return p;
}

DBusMenuLayoutItem DBusMenuExporter::layout(int parentId, int depth,
                                            const QStringList &names) const {
    DBusMenuLayoutItem node;
    node.id = parentId;
    if (parentId != 0) {
        if (const QAction *action = actionOf(parentId))
            node.properties = filtered(propertiesOf(action), names);
        return node; // items have no submenus
    }
    node.properties =
        filtered({{QStringLiteral("children-display"), QStringLiteral("submenu")}}, names);
    if (depth == 0 || !_menu) return node;
    for (QAction *action : _menu->actions()) {
        DBusMenuLayoutItem child;
        child.id = _ids.value(action);
        child.properties = filtered(propertiesOf(action), names);
        node.children.append(child);
    }
    return node;
}

DBusMenuItemList DBusMenuExporter::groupProperties(const QList<int> &ids,
                                                   const QStringList &names) const {
    DBusMenuItemList items;
    for (int id : ids) {
        if (id == 0) {
            items.append(
                {0, filtered({{QStringLiteral("children-display"), QStringLiteral("submenu")}},
                             names)});
        } else if (const QAction *action = actionOf(id)) {
            items.append({id, filtered(propertiesOf(action), names)});
        }
    }
    return items;
}

QVariant DBusMenuExporter::property(int id, const QString &name) const {
    const DBusMenuItemList items = groupProperties({id}, {name});
    return items.isEmpty() ? QVariant() : items.constFirst().properties.value(name);
}

bool DBusMenuExporter::handleEvent(int id, const QString &eventId) {
    if (id == 0) {
        if (eventId == QLatin1String("opened"))
            emit menuOpened();
        else if (eventId == QLatin1String("closed"))
            emit menuClosed();
        return true;
    }
    QAction *action = actionOf(id);
    if (!action) return false;
    if (eventId == QLatin1String("clicked")) {
        // After the reply: the action may run a dialog of its own, and the
        // host waits for the answer to its call.
        QMetaObject::invokeMethod(action, "trigger", Qt::QueuedConnection);
    } else if (eventId == QLatin1String("hovered")) {
        emit itemHovered();
    }
    return true;
}

bool DBusMenuExporter::aboutToShow(int id) {
    if (id != 0) return false;
    emit menuAboutToShow();
    // What the opening changed goes out now, before the host shows the menu.
    return flush();
}

bool DBusMenuExporter::eventFilter(QObject *watched, QEvent *event) {
    if (watched == _menu) {
        switch (event->type()) {
        case QEvent::ActionAdded:
            idOf(static_cast<QActionEvent *>(event)->action());
            _layoutChanged = true;
            scheduleFlush();
            break;
        case QEvent::ActionRemoved:
            _sent.remove(_ids.take(static_cast<QActionEvent *>(event)->action()));
            _layoutChanged = true;
            scheduleFlush();
            break;
        case QEvent::ActionChanged:
            scheduleFlush();
            break;
        default:
            break;
        }
    }
    return QObject::eventFilter(watched, event);
}

void DBusMenuExporter::scheduleFlush() {
    // Changes made together (a refresh of every item) go out together, once
    // control is back in the event loop.
    if (_flushScheduled) return;
    _flushScheduled = true;
    QMetaObject::invokeMethod(this, "flush", Qt::QueuedConnection);
}

bool DBusMenuExporter::flush() {
    _flushScheduled = false;
    if (!_menu) return false;
    if (_layoutChanged) {
        _layoutChanged = false;
        for (QAction *action : _menu->actions()) _sent.insert(idOf(action), propertiesOf(action));
        emit layoutUpdated(++_revision, 0);
        return true;
    }
    DBusMenuItemList updated;
    DBusMenuItemKeysList removed;
    for (QAction *action : _menu->actions()) {
        const int id = idOf(action);
        const QVariantMap now = propertiesOf(action);
        QVariantMap &before = _sent[id];
        DBusMenuItem changed{id, {}};
        DBusMenuItemKeys gone{id, {}};
        for (auto it = now.cbegin(); it != now.cend(); ++it)
            if (before.value(it.key()) != it.value())
                changed.properties.insert(it.key(), it.value());
        for (auto it = before.cbegin(); it != before.cend(); ++it)
            if (!now.contains(it.key())) gone.properties << it.key();
        if (!changed.properties.isEmpty()) updated.append(changed);
        if (!gone.properties.isEmpty()) removed.append(gone);
        before = now;
    }
    if (updated.isEmpty() && removed.isEmpty()) return false;
    emit itemsPropertiesUpdated(updated, removed);
    return true;
}

// --- the adaptor --------------------------------------------------------------------

DBusMenuAdaptor::DBusMenuAdaptor(DBusMenuExporter *exporter)
    : QDBusAbstractAdaptor(exporter), _exporter(exporter) {
    connect(exporter, &DBusMenuExporter::layoutUpdated, this, &DBusMenuAdaptor::LayoutUpdated);
    connect(exporter, &DBusMenuExporter::itemsPropertiesUpdated, this,
            &DBusMenuAdaptor::ItemsPropertiesUpdated);
}

QString DBusMenuAdaptor::textDirection() const {
    return QGuiApplication::layoutDirection() == Qt::RightToLeft ? QStringLiteral("rtl")
                                                                 : QStringLiteral("ltr");
}

uint DBusMenuAdaptor::GetLayout(int parentId, int recursionDepth, const QStringList &propertyNames,
                                DBusMenuLayoutItem &layout) {
    layout = _exporter->layout(parentId, recursionDepth, propertyNames);
    return _exporter->revision();
}

DBusMenuItemList DBusMenuAdaptor::GetGroupProperties(const QList<int> &ids,
                                                     const QStringList &propertyNames) {
    return _exporter->groupProperties(ids, propertyNames);
}

QDBusVariant DBusMenuAdaptor::GetProperty(int id, const QString &name) {
    return QDBusVariant(_exporter->property(id, name));
}

void DBusMenuAdaptor::Event(int id, const QString &eventId, const QDBusVariant &, uint) {
    _exporter->handleEvent(id, eventId);
}

QList<int> DBusMenuAdaptor::EventGroup(const DBusMenuEventList &events) {
    QList<int> errors;
    for (const DBusMenuEvent &e : events)
        if (!_exporter->handleEvent(e.id, e.eventId)) errors << e.id;
    return errors;
}

bool DBusMenuAdaptor::AboutToShow(int id) {
    return _exporter->aboutToShow(id);
}

QList<int> DBusMenuAdaptor::AboutToShowGroup(const QList<int> &ids, QList<int> &idErrors) {
    QList<int> updates;
    idErrors.clear();
    for (int id : ids)
        if (_exporter->aboutToShow(id)) updates << id;
    return updates;
}
