// Watching for whatever can show the tray icon.
//
// Contract:
//   - A StatusNotifierItem host is a panel that draws tray items from
//     D-Bus; it registers with the session's StatusNotifierWatcher.
//     askHost() asks the watcher whether one has, without waiting: the
//     answer comes as hostAnswered, however late the watcher gives it (a
//     watcher still loading at login answers seconds late), and a question
//     that gets no answer within kAnswerMs is asked again while the watcher
//     is there, so that no question is fired and forgotten. The signals say
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
// Whether a call failed for want of an answer in time (the callee is there
// but busy or stopped), not because it was refused or nobody serves it.
inline bool unansweredInTime(const QString &errorName) {
    return errorName == QLatin1String("org.freedesktop.DBus.Error.NoReply") ||
           errorName == QLatin1String("org.freedesktop.DBus.Error.Timeout");
}
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
    // How long a call to the watcher waits for its answer before it is
    // made again.
    static constexpr int kAnswerMs = 5000;

    // Asks the watcher whether a host has registered with it; hostAnswered
    // tells. Nothing is asked where there is no watcher: watcherAppeared
    // comes when there is one.
    void askHost();
    void docked() { _noTrayTimer.stop(); }
    bool noTrayCheckPending() const { return _noTrayTimer.isActive(); }

  signals:
    void watcherAppeared();
    void hostDidRegister();
    // The watcher's answer to askHost().
    void hostAnswered(bool registered);
    void noTrayTimedOut();

  private:
    QTimer _noTrayTimer;
    // A question to the watcher is on its way.
    bool _asking = false;
};
