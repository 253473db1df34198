#include "TrayIcon.h"

#include <QFont>
#include <QPainter>
#include <QPixmap>

namespace quendral {

namespace {

// A white Q on a mid-blue disc with a light rim reads on dark and on light
// panels alike. Each size is drawn on its own rather than scaled, so the
// letter stays sharp at every size and device pixel ratio.
QPixmap drawQ(int size) {
    QPixmap pm(size, size);
    pm.fill(Qt::transparent);
    QPainter p(&pm);
    p.setRenderHint(QPainter::Antialiasing);
    p.setRenderHint(QPainter::TextAntialiasing);
    const qreal rim = qMax<qreal>(1.0, size / 16.0);
    p.setPen(QPen(QColor(255, 255, 255, 200), rim));
    p.setBrush(QColor(0x1f, 0x5f, 0xa8));
    p.drawEllipse(QRectF(rim / 2, rim / 2, size - rim, size - rim));
    QFont font(QStringLiteral("DejaVu Sans"));
    font.setBold(true);
    font.setPixelSize(qRound(size * 0.66));
    p.setFont(font);
    p.setPen(Qt::white);
    p.drawText(QRectF(0, -size * 0.03, size, size), Qt::AlignCenter, QStringLiteral("Q"));
    return pm;
}

} // namespace

QIcon makeTrayIcon() {
    QIcon icon;
    for (int size : {16, 22, 24, 32, 44, 48, 64, 96, 128, 256}) icon.addPixmap(drawQ(size));
    return icon;
}

} // namespace quendral
