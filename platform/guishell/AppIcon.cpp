// SPDX-License-Identifier: GPL-2.0-or-later
#include "AppIcon.h"

#include <QPainter>
#include <QPainterPath>
#include <QPixmap>

namespace kuv {
namespace shell {

namespace {

QPixmap paintShield(int size)
{
    QPixmap pix(size, size);
    pix.fill(Qt::transparent);
    QPainter p(&pix);
    p.setRenderHint(QPainter::Antialiasing);
    const qreal s = size;
    QPainterPath shield;
    shield.moveTo(s * 0.5, s * 0.06);
    shield.lineTo(s * 0.88, s * 0.2);
    shield.cubicTo(s * 0.88, s * 0.62, s * 0.72, s * 0.82, s * 0.5, s * 0.95);
    shield.cubicTo(s * 0.28, s * 0.82, s * 0.12, s * 0.62, s * 0.12, s * 0.2);
    shield.closeSubpath();
    p.setPen(QPen(QColor(0x0b, 0x3d, 0x6b), s / 24.0));
    p.setBrush(QColor(0x1f, 0x6f, 0xb5));
    p.drawPath(shield);
    QPainterPath tick;
    tick.moveTo(s * 0.32, s * 0.5);
    tick.lineTo(s * 0.45, s * 0.64);
    tick.lineTo(s * 0.7, s * 0.36);
    p.setPen(QPen(Qt::white, s / 10.0, Qt::SolidLine, Qt::RoundCap, Qt::RoundJoin));
    p.setBrush(Qt::NoBrush);
    p.drawPath(tick);
    return pix;
}

} // namespace

QIcon appIcon()
{
    QIcon icon;
    for (int size : {16, 22, 32, 48, 64, 128}) {
        icon.addPixmap(paintShield(size));
    }
    return icon;
}

} // namespace shell
} // namespace kuv
