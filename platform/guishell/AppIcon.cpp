// SPDX-License-Identifier: GPL-2.0-or-later
#include "AppIcon.h"

#include <QGuiApplication>
#include <QIconEngine>
#include <QPainter>
#include <QPainterPath>
#include <QPalette>
#include <QPixmap>
#include <QPolygonF>

namespace kuv {
namespace shell {

namespace {

void paintShield(QPainter& p, const QRectF& r, int badge)
{
    p.save();
    p.translate(r.topLeft());
    p.setRenderHint(QPainter::Antialiasing);
    const qreal s = qMin(r.width(), r.height());
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
    if (badge != 0) {
        const qreal radius = s * 0.24;
        const QPointF c(s - radius - 0.5, s - radius - 0.5);
        p.setPen(QPen(Qt::white, s / 20.0));
        p.setBrush(badge == 2 ? QColor(0xd0, 0x2b, 0x2b) : QColor(0xe0, 0x9a, 0x10));
        p.drawEllipse(c, radius, radius);
        p.setPen(QPen(Qt::white, qMax(1.0, s / 14.0), Qt::SolidLine, Qt::RoundCap));
        if (badge == 2) {
            p.drawLine(QPointF(c.x(), c.y() - radius * 0.5), QPointF(c.x(), c.y() + radius * 0.1));
            p.drawPoint(QPointF(c.x(), c.y() + radius * 0.5));
        } else {
            // Three dots: busy.
            for (int i = -1; i <= 1; ++i) {
                p.drawPoint(QPointF(c.x() + i * radius * 0.5, c.y()));
            }
        }
    }
    p.restore();
}

// Beyond the navigation glyphs: the overflow chevrons.
constexpr int GLYPH_EXTENSION_H = GLYPH_PLUGIN + 1;
constexpr int GLYPH_EXTENSION_V = GLYPH_PLUGIN + 2;

void paintGlyph(QPainter& p, const QRectF& r, int glyph, const QColor& ink)
{
    p.save();
    const qreal s = qMin(r.width(), r.height());
    p.translate(r.topLeft() + QPointF((r.width() - s) / 2, (r.height() - s) / 2));
    p.scale(s / 20.0, s / 20.0);
    p.setRenderHint(QPainter::Antialiasing);
    p.setPen(QPen(ink, 1.6, Qt::SolidLine, Qt::RoundCap, Qt::RoundJoin));
    p.setBrush(Qt::NoBrush);
    switch (glyph) {
    case GLYPH_OVERVIEW: // a screen on a stand
        p.drawRoundedRect(QRectF(2.5, 3.5, 15, 10), 1.5, 1.5);
        p.drawLine(QPointF(10, 13.5), QPointF(10, 16.5));
        p.drawLine(QPointF(6.5, 16.5), QPointF(13.5, 16.5));
        break;
    case GLYPH_SCAN: // a magnifier
        p.drawEllipse(QPointF(8.5, 8.5), 5, 5);
        p.drawLine(QPointF(12.2, 12.2), QPointF(17, 17));
        break;
    case GLYPH_QUARANTINE: // a closed box
        p.drawRect(QRectF(3, 6.5, 14, 10));
        p.drawRect(QRectF(2, 3.5, 16, 3));
        p.drawLine(QPointF(8, 10), QPointF(12, 10));
        break;
    case GLYPH_HISTORY: // a clock
        p.drawEllipse(QPointF(10, 10), 7, 7);
        p.drawLine(QPointF(10, 10), QPointF(10, 5.5));
        p.drawLine(QPointF(10, 10), QPointF(13.5, 12));
        break;
    case GLYPH_SETTINGS: // three sliders
        for (int i = 0; i < 3; ++i) {
            const qreal y = 5 + i * 5;
            const qreal knob = i == 1 ? 12.5 : 7;
            p.drawLine(QPointF(3, y), QPointF(17, y));
            p.setBrush(ink);
            p.drawEllipse(QPointF(knob, y), 1.8, 1.8);
            p.setBrush(Qt::NoBrush);
        }
        break;
    case GLYPH_EXTENSION_H: // a double chevron, pointing right
        for (qreal x : {5.0, 10.0}) {
            p.drawPolyline(QPolygonF({QPointF(x, 6), QPointF(x + 4, 10), QPointF(x, 14)}));
        }
        break;
    case GLYPH_EXTENSION_V: // a double chevron, pointing down
        for (qreal y : {5.0, 10.0}) {
            p.drawPolyline(QPolygonF({QPointF(6, y), QPointF(10, y + 4), QPointF(14, y)}));
        }
        break;
    case GLYPH_PLUGIN: // "i" in a circle
        p.drawEllipse(QPointF(10, 10), 7, 7);
        p.drawLine(QPointF(10, 9), QPointF(10, 14));
        p.drawPoint(QPointF(10, 6));
        break;
    }
    p.restore();
}

// Paints on demand at whatever size is asked for: nothing decoded, nothing cached.
class PaintedIconEngine final : public QIconEngine {
public:
    PaintedIconEngine(int badge, int glyph, QList<QSize> sizes)
        : m_badge(badge), m_glyph(glyph), m_sizes(std::move(sizes))
    {
    }

    void paint(QPainter* painter, const QRect& rect, QIcon::Mode mode, QIcon::State) override
    {
        if (m_glyph < 0) {
            paintShield(*painter, rect, m_badge);
            return;
        }
        const QPalette palette = QGuiApplication::palette();
        const QColor ink = mode == QIcon::Selected   ? palette.color(QPalette::HighlightedText)
                           : mode == QIcon::Disabled ? palette.color(QPalette::Disabled, QPalette::Text)
                                                     : palette.color(QPalette::Text);
        paintGlyph(*painter, rect, m_glyph, ink);
    }

    QPixmap pixmap(const QSize& size, QIcon::Mode mode, QIcon::State state) override
    {
        QPixmap pix(size);
        pix.fill(Qt::transparent);
        QPainter p(&pix);
        paint(&p, QRect(QPoint(0, 0), size), mode, state);
        return pix;
    }

    QIconEngine* clone() const override { return new PaintedIconEngine(m_badge, m_glyph, m_sizes); }

    // Tray implementations that send pixmaps ask which sizes there are.
    void virtual_hook(int id, void* data) override
    {
        if (id == QIconEngine::AvailableSizesHook) {
            static_cast<QIconEngine::AvailableSizesArgument*>(data)->sizes = m_sizes;
            return;
        }
        QIconEngine::virtual_hook(id, data);
    }

private:
    const int m_badge;
    const int m_glyph;
    const QList<QSize> m_sizes;
};

QList<QSize> squares(std::initializer_list<int> sides)
{
    QList<QSize> out;
    for (int side : sides) {
        out << QSize(side, side);
    }
    return out;
}

} // namespace

QIcon appIcon(int badge)
{
    return QIcon(new PaintedIconEngine(badge, -1,
                                       badge == 0 ? squares({16, 22, 32, 48, 64, 128}) : squares({16, 22, 24, 32, 48, 64})));
}

QIcon navIcon(NavGlyph glyph)
{
    return QIcon(new PaintedIconEngine(0, glyph, squares({20})));
}

QIcon extensionIcon(bool horizontal)
{
    return QIcon(new PaintedIconEngine(0, horizontal ? GLYPH_EXTENSION_H : GLYPH_EXTENSION_V, squares({16, 20})));
}

} // namespace shell
} // namespace kuv
