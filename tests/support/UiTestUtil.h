// Helpers for the tray tests: a temporary installation with the demo server,
// the application launched on it, and ways to wait for and answer its alert.
#pragma once

#include "Application.h"
#include "ModelTestUtil.h"

#include <QAction>
#include <QMenu>
#include <QObject>
#include <QStringList>
#include <QUrl>

#include <functional>
#include <memory>

namespace testsupport {

// Runs the event loop until cond holds or the time runs out.
bool spinUntil(const std::function<bool()> &cond, int ms = 5000);
// Runs the event loop for ms.
void spinFor(int ms);

// The shown texts of a menu's items; separators are "-".
QStringList menuTexts(const QMenu *menu);
// The item showing text, or null.
QAction *findItem(const QMenu *menu, const QString &text);

// Answers the next alert with a key press once it is up.
void answerNextAlertWith(Application &app, int key);

// Collects the URLs the application asks the desktop to open.
class UrlCatcher : public QObject {
    Q_OBJECT
  public:
    UrlCatcher();
    ~UrlCatcher() override;
    QList<QUrl> urls;
  public slots:
    void open(const QUrl &url) { urls.append(url); }
};

// A temporary installation (bin/quendral is the demo server) with a temporary
// XDG config directory; launch() starts the application on it.
class TrayFixture {
  public:
    TrayFixture();
    ~TrayFixture();
    TempDir root;
    std::string home;   // root/home
    std::string config; // root/config, XDG_CONFIG_HOME
    std::unique_ptr<Application> app;
    LogCapture log;

    std::string addInstance(const std::string &name, const std::string &ini = "[database]\n");
    void launch();
    // Opens the menu as the tray does (it emits aboutToShow) and closes it.
    void openMenu();
    void closeMenu();
    QMenu *menu() const { return app->menu(); }
};

} // namespace testsupport
