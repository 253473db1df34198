#include "InstanceMenu.h"

#include "Localization.h"

#include <algorithm>

InstanceAction::InstanceAction(std::shared_ptr<QuendralInstance> instance, QObject *parent)
    : QAction(parent), _instance(std::move(instance)) {}

QString menuText(const QString &shown, bool qtExports) {
    QString s = shown;
    if (qtExports) {
        // The tray host draws the menu from Qt's D-Bus description, in which
        // "_" marks a mnemonic ("__" is a literal one), and Qt turns the
        // first "&" of the text into that "_": doubling the first "&" makes
        // it show as itself. A tab has no meaning there.
        s.replace(QLatin1Char('_'), QLatin1String("__"));
        const qsizetype amp = s.indexOf(QLatin1Char('&'));
        if (amp >= 0) s.insert(amp, QLatin1Char('&'));
        return s;
    }
    // Qt draws the menu, or the monitor's own D-Bus menu describes it from
    // these texts: "&" is a mnemonic marker (doubling shows it) and a tab the
    // start of the shortcut column, so a tab in a directory name is shown as
    // the space it stands for.
    return s.replace(QLatin1Char('&'), QLatin1String("&&"))
        .replace(QLatin1Char('\t'), QLatin1Char(' '));
}

QString shownText(const QAction *action) {
    return action->text().replace(QLatin1String("&&"), QLatin1String("&"));
}

InstanceItemState instanceItemState(const QuendralInstance &instance) {
    // Any value outside the known ones reads as unknown.
    InstanceItemState state{QM_TRANSLATE_NOOP("Quendral", "%@: Unknown"),
                            InstanceAction::Kind::None};
    switch (instance.serverStatus()) {
    case ServerStatusStopped:
        state.title = QM_TRANSLATE_NOOP("Quendral", "Start %@");
        if (instance.canStart()) state.kind = InstanceAction::Kind::Start;
        break;
    case ServerStatusStarting:
        state.title = QM_TRANSLATE_NOOP("Quendral", "%@: Starting");
        break;
    case ServerStatusRunning:
        state.title = QM_TRANSLATE_NOOP("Quendral", "Stop %@");
        if (instance.canStart()) state.kind = InstanceAction::Kind::Stop;
        break;
    case ServerStatusStopping:
        state.title = QM_TRANSLATE_NOOP("Quendral", "%@: Stopping");
        break;
    case ServerStatusUnknown:
        break;
    }
    return state;
}

QList<InstanceAction *> instanceItems(const QMenu &menu) {
    QList<InstanceAction *> items;
    for (QAction *action : menu.actions())
        if (auto *item = qobject_cast<InstanceAction *>(action)) items.append(item);
    return items;
}

void syncInstanceItems(
    QMenu &menu, const std::vector<std::shared_ptr<QuendralInstance>> &instances, QAction *end,
    QAction *none, const std::function<void(InstanceAction *, const QuendralInstance &)> &update,
    const std::function<void(InstanceAction *)> &made) {
    // Items of instances that are gone go; the rest stay, in the manager's
    // order, which is also the order they were added in.
    for (InstanceAction *item : instanceItems(menu)) {
        if (std::find(instances.begin(), instances.end(), item->representedObject()) ==
            instances.end())
            delete item;
    }
    const QList<InstanceAction *> kept = instanceItems(menu);
    qsizetype next = 0;
    for (const auto &instance : instances) {
        if (next < kept.size() && kept[next]->representedObject() == instance) {
            update(kept[next++], *instance);
            continue;
        }
        auto *item = new InstanceAction(instance, &menu);
        update(item, *instance);
        made(item);
        menu.insertAction(next < kept.size() ? kept[next] : end, item);
    }
    const bool empty = instances.empty();
    const bool shown = menu.actions().contains(none);
    if (empty && !shown) menu.insertAction(end, none);
    if (!empty && shown) menu.removeAction(none);
}
