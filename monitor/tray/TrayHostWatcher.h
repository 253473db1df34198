// Watching for whatever can show the tray icon.
//
// Contract:
//   - A StatusNotifierItem host is a panel that draws tray items from
//     D-Bus; it registers with the session's StatusNotifierWatcher.
//     hostRegistered() asks the watcher (bounded to 2 s); the signals say
//     when a watcher appears (a panel started or restarted) and when a host
//     registers with it.
//   - The no-tray check runs only until the icon is docked: armed at launch
//     where a tray is expected (X11, Wayland), it fires noTrayTimedOut once
//     after kNoTrayNoticeMs; docked() disarms it, so a docked monitor has no
//     timer running while its menu is closed.
#pragma once

#include <QObject>
#include <QString>
#include <QTimer>

namespace tray {
// Where the session's StatusNotifierWatcher answers.
inline const QString kWatcherService = QStringLiteral("org.kde.StatusNotifierWatcher");
inline const QString kWatcherPath = QStringLiteral("/StatusNotifierWatcher");
} // namespace tray

class TrayHostWatcher : public QObject {
    Q_OBJECT
  public:
    // How long the monitor waits for a tray before it says there is none.
    static constexpr int kNoTrayNoticeMs = 10000;

    explicit TrayHostWatcher(QObject *parent = nullptr);

    // Listens on the session bus (when there is one) and arms the no-tray
    // check when armNoTrayCheck.
    void start(bool armNoTrayCheck);
    // Whether a host has registered with the session's watcher.
    static bool hostRegistered();
    void docked() { _noTrayTimer.stop(); }
    bool noTrayCheckPending() const { return _noTrayTimer.isActive(); }

  signals:
    void watcherAppeared();
    void hostDidRegister();
    void noTrayTimedOut();

  private:
    QTimer _noTrayTimer;
};
