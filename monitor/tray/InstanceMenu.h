// The menu's instance items, kept in step with the instances.
//
// Contract:
//   - One InstanceAction per instance, in the manager's order, between the
//     top of the menu and a separator; "No Quendral Instances" stands there
//     when there is none.
//   - A sync changes only what differs (items of instances that are gone
//     go, new ones are inserted in place, the rest keep their QAction), so a
//     tray host drawing the menu from D-Bus sees few updates.
//   - An item's title and action follow the server status: "Start %@" and
//     "Stop %@" (enabled only when the user may change the instance
//     directory), "%@: Starting", "%@: Stopping", and "%@: Unknown" for
//     anything else.
//   - Texts are given to Qt escaped for whoever draws the menu (menuText).
#pragma once

#include "QuendralInstance.h"

#include <QAction>
#include <QList>
#include <QMenu>

#include <functional>
#include <memory>
#include <vector>

// A menu item standing for one instance; it keeps its instance alive for as
// long as the item lives, and remembers which action it currently runs.
class InstanceAction : public QAction {
    Q_OBJECT
  public:
    enum class Kind { None, Start, Stop };
    InstanceAction(std::shared_ptr<QuendralInstance> instance, QObject *parent);
    const std::shared_ptr<QuendralInstance> &representedObject() const { return _instance; }
    Kind kind() const { return _kind; }
    void setKind(Kind kind) { _kind = kind; }

  private:
    std::shared_ptr<QuendralInstance> _instance;
    Kind _kind = Kind::None;
};

// What to give an item as its text so that it shows `shown` as it is: for a
// menu that Qt exports to a tray host (qtExports), in the escaping of Qt's
// D-Bus description; else for a menu Qt draws, or that the monitor's own
// D-Bus menu describes.
QString menuText(const QString &shown, bool qtExports);

// The text an item shows, with Qt's mnemonic escaping undone (for a menu Qt
// draws).
QString shownText(const QAction *action);

// The item's English title format and action for the instance as it is.
struct InstanceItemState {
    const char *title;
    InstanceAction::Kind kind;
};
InstanceItemState instanceItemState(const QuendralInstance &instance);

// The instance items of the menu, in menu order.
QList<InstanceAction *> instanceItems(const QMenu &menu);

// Brings the instance items of `menu` in step with `instances` (see the
// contract): `end` is the separator after them, `none` the item shown when
// there is none; `update` brings one item's text and state up to date and
// `made` is told of each new item.
void syncInstanceItems(
    QMenu &menu, const std::vector<std::shared_ptr<QuendralInstance>> &instances, QAction *end,
    QAction *none, const std::function<void(InstanceAction *, const QuendralInstance &)> &update,
    const std::function<void(InstanceAction *)> &made);
