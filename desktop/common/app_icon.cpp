#include "desktop/common/app_icon.hpp"

#include <QPainter>
#include <QPainterPath>
#include <QPixmap>

namespace corvane::desktop {

QIcon appIcon() {
  QIcon icon;
  for (int size : {16, 32, 64, 128, 256}) {
    QPixmap pixmap(size, size);
    pixmap.fill(Qt::transparent);
    QPainter painter(&pixmap);
    painter.setRenderHint(QPainter::Antialiasing);
    const qreal s = size;
    QLinearGradient fill(0, 0, 0, s);
    fill.setColorAt(0, QColor(0x2b, 0x4c, 0x8c));
    fill.setColorAt(1, QColor(0x1a, 0x2e, 0x5a));
    painter.setBrush(fill);
    painter.setPen(Qt::NoPen);
    painter.drawRoundedRect(QRectF(0, 0, s, s), s * 0.2, s * 0.2);
    QPen pen(Qt::white, s * 0.11, Qt::SolidLine, Qt::RoundCap);
    painter.setPen(pen);
    painter.setBrush(Qt::NoBrush);
    painter.drawArc(QRectF(s * 0.2, s * 0.2, s * 0.6, s * 0.6), 45 * 16, 270 * 16);
    painter.setPen(Qt::NoPen);
    painter.setBrush(QColor(0x7f, 0xd1, 0xff));
    painter.drawRect(QRectF(s * 0.66, s * 0.42, s * 0.07, s * 0.16));
    painter.end();
    icon.addPixmap(pixmap);
  }
  return icon;
}

}  // namespace corvane::desktop
