#include "ConfirmationAlert.h"

#include "TrayText.h"

#include <QLabel>
#include <QMessageBox>
#include <QPushButton>
#include <QTimer>

using tray::format;
using tray::text;

bool confirmAction(const QuendralInstance &instance, bool start,
                   const std::function<void(QMessageBox *)> &shown) {
    QMessageBox box;
    // Names and paths are shown as they are, never read as markup.
    box.setTextFormat(Qt::PlainText);
    box.setText(format(start ? QM_TRANSLATE_NOOP("Quendral", "Do you want to start the %@?")
                             : QM_TRANSLATE_NOOP("Quendral", "Do you want to stop the %@?"),
                       instance.instanceName()));
    box.setInformativeText(
        format(start ? QM_TRANSLATE_NOOP("Quendral",
                                         "This will start up a Quendral instance in directory\n%@.")
                     : QM_TRANSLATE_NOOP("Quendral",
                                         "This will stop the Quendral instance in directory\n%@."),
               instance.directory()));
    // The directory stands on a line of its own; Qt would otherwise wrap the
    // lines of the informative text at a narrow width, even inside the path.
    if (auto *info = box.findChild<QLabel *>(QStringLiteral("qt_msgbox_informativelabel")))
        info->setWordWrap(false);
    // Both buttons share a role, so every desktop's button layout keeps them
    // in the order added: the action first, then Cancel.
    QPushButton *action = box.addButton(text(start ? QM_TRANSLATE_NOOP("Quendral", "Start")
                                                   : QM_TRANSLATE_NOOP("Quendral", "Stop")),
                                        QMessageBox::ActionRole);
    QPushButton *cancel =
        box.addButton(text(QM_TRANSLATE_NOOP("Quendral", "Cancel")), QMessageBox::ActionRole);
    box.setDefaultButton(action);
    box.setEscapeButton(cancel);
    if (shown) shown(&box);
    // The monitor has no window of its own: the alert comes to the front
    // once its event loop runs.
    QTimer front;
    front.setSingleShot(true);
    QObject::connect(&front, &QTimer::timeout, &box, [&box] {
        box.raise();
        box.activateWindow();
    });
    front.start(0);
    box.exec();
    if (shown) shown(nullptr);
    return box.clickedButton() == action;
}
