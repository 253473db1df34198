// The baseline for the tray's idle cost: the smallest Qt tray application,
// an icon with a one-item menu and nothing else.
#include <QApplication>
#include <QMenu>
#include <QPainter>
#include <QPixmap>
#include <QSystemTrayIcon>

int main(int argc, char **argv) {
    QApplication app(argc, argv);
    app.setQuitOnLastWindowClosed(false);
    QPixmap pm(22, 22);
    pm.fill(Qt::blue);
    QMenu menu;
    menu.addAction(QStringLiteral("Quit"), &app, &QCoreApplication::quit);
    QSystemTrayIcon icon{QIcon(pm)};
    icon.setContextMenu(&menu);
    icon.show();
    return app.exec();
}
