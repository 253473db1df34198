// The tray application: owns the instance manager, the tray icon and its
// menu, the menu's refresh timer and the default instance. The menu is
// rebuilt every time it opens and refreshed twice a second while it is open;
// its items start and stop instances after a confirmation.
#pragma once

#include "QuendralManager.h"

#include <QAction>
#include <QObject>

#include <memory>
#include <string>

class QMenu;
class QMessageBox;
class QSystemTrayIcon;
class QTimer;

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

class Application : public QObject {
    Q_OBJECT
  public:
    static constexpr const char *kDravinterUrl = "http://localhost:8890/dravinter/";
    static constexpr const char *kDocumentationUrl = "http://docs.tarnwick.com/quendral/";
    // A tray host that never reports the menu's closing must not keep the
    // refresh running forever.
    static constexpr int kMenuRefreshLimitMs = 120000;

    // bundlePath is where the fallback installation "Contents/quendral" is
    // looked for (the installation prefix above bin/ by default).
    explicit Application(std::string bundlePath);
    ~Application() override;

    void openUrl(const QString &url);
    bool confirm(const std::shared_ptr<QuendralInstance> &instance, bool start);
    QMenu *createMenu();
    void updateMenuItem(InstanceAction *item, const QuendralInstance &instance);
    Q_INVOKABLE void applicationDidFinishLaunching();
    void setupGlobalEnvironment();

    // The monitor's identity as a login item: the file URL of its program.
    static std::string applicationUrl();
    static bool willStartAtLogin(const std::string &url);
    static void setStartAtLogin(const std::string &url, bool enabled);

    // For the tests and the tray glue.
    QMenu *menu() const { return _menu; }
    QSystemTrayIcon *statusItem() const { return _statusItem; }
    QTimer *menuUpdateTimer() const { return _menuUpdateTimer; }
    bool inModalDialog() const { return _inModalDialog; }
    const std::shared_ptr<QuendralInstance> &defaultInstance() const { return _defaultInstance; }
    QuendralManager &manager() { return *_manager; }
    // The alert while a confirmation is up, else null.
    QMessageBox *activeAlert() const { return _alert; }
    // The text a menu item shows, with Qt's mnemonic escaping undone (for a
    // menu Qt draws).
    static QString shownText(const QAction *action);
    // What to give an item as its text so that it shows `shown` as it is,
    // whether Qt draws the menu or the tray host does.
    QString itemText(const QString &shown) const;

  public slots:
    void startInstance(InstanceAction *sender);
    void stopInstance(InstanceAction *sender);
    void menuWillOpen();
    void menuDidClose();
    void menuTimerFired();
    void launchDravinter();
    void onlineDocumentation();
    void viewLogFile();
    void toggleStartAtLogin(QAction *sender);

  private slots:
    void bringAlertToFront();

  private:
    bool hostDrawsMenu() const;
    QAction *addGeneralItem(const char *title, bool enabled);

    std::unique_ptr<QuendralManager> _manager;
    QSystemTrayIcon *_statusItem = nullptr;
    qint64 _psn = 0; // our own process, brought to the front for an alert
    QTimer *_menuUpdateTimer = nullptr;
    bool _inModalDialog = false;
    std::shared_ptr<QuendralInstance> _defaultInstance;

    std::string _bundlePath;
    QMenu *_menu = nullptr;
    QMessageBox *_alert = nullptr; // set only while confirm() runs
    qint64 _menuOpenedAt = 0;
};
