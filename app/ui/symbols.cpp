#include "app/ui/symbols.h"

#include <QPainterPath>
#include <QPainterPathStroker>
#include <QTransform>

namespace corvane {
namespace {

// Every symbol is drawn on a 100 × 100 grid and scaled to its place.
constexpr qreal grid = 100;

QPainterPath circle() {
  QPainterPath p;
  p.addEllipse(QRectF(4, 4, 92, 92));
  return p;
}

QPainterPath polyline(std::initializer_list<QPointF> points) {
  QPainterPath p;
  auto it = points.begin();
  p.moveTo(*it);
  for (++it; it != points.end(); ++it) p.lineTo(*it);
  return p;
}

QPainterPath stroke(const QPainterPath& line, qreal width) {
  QPainterPathStroker stroker;
  stroker.setWidth(width);
  stroker.setCapStyle(Qt::RoundCap);
  stroker.setJoinStyle(Qt::RoundJoin);
  return stroker.createStroke(line);
}

// A chain link: a stadium of `length` × `thickness` around `centre`, turned by 45°.
QPainterPath chainLink(QPointF centre, qreal length, qreal thickness) {
  QPainterPath p;
  p.addRoundedRect(QRectF(-length / 2, -thickness / 2, length, thickness), thickness / 2,
                   thickness / 2);
  QTransform t;
  t.translate(centre.x(), centre.y());
  t.rotate(-45);
  return t.map(p);
}

QPainterPath shape(Symbol symbol) {
  switch (symbol) {
    case Symbol::arrowDownCircle: {
      QPainterPath arrow = polyline({{50, 25}, {50, 71}});
      arrow.addPath(polyline({{31, 53}, {50, 72}, {69, 53}}));
      return circle().subtracted(stroke(arrow, 10));
    }
    case Symbol::checkmarkCircle:
      return circle().subtracted(stroke(polyline({{28, 52}, {43, 67}, {72, 35}}), 10));
    case Symbol::personCircle: {
      QPainterPath person;
      person.addEllipse(QPointF(50, 39), 17, 17);
      QPainterPath shoulders;
      shoulders.addEllipse(QPointF(50, 95), 33, 27);
      person = person.united(shoulders);
      return circle().subtracted(person);
    }
    case Symbol::link: {
      QPainterPath links = chainLink({39, 61}, 46, 22);
      links.addPath(chainLink({61, 39}, 46, 22));
      return circle().subtracted(stroke(links, 7));
    }
    case Symbol::message: {
      QPainterPath bubble;
      bubble.addEllipse(QRectF(5, 10, 90, 72));
      QPainterPath tail;
      tail.moveTo(20, 64);
      tail.quadTo(20, 84, 8, 94);
      tail.quadTo(30, 92, 44, 78);
      tail.closeSubpath();
      return bubble.united(tail);
    }
    case Symbol::paperplane: {
      QPainterPath plane;
      plane.moveTo(6, 46);
      plane.lineTo(94, 8);
      plane.lineTo(58, 94);
      plane.lineTo(45, 57);
      plane.closeSubpath();
      return plane.subtracted(stroke(polyline({{45, 57}, {86, 16}}), 5));
    }
    case Symbol::chevronLeft:
      return stroke(polyline({{62, 16}, {32, 50}, {62, 84}}), 11);
  }
  return {};
}

}  // namespace

void paintSymbol(QPainter& painter, Symbol symbol, const QRectF& rect, const QColor& color) {
  const qreal side = std::min(rect.width(), rect.height());
  painter.save();
  painter.setRenderHint(QPainter::Antialiasing);
  painter.translate(rect.center().x() - side / 2, rect.center().y() - side / 2);
  painter.scale(side / grid, side / grid);
  painter.setPen(Qt::NoPen);
  painter.setBrush(color);
  painter.drawPath(shape(symbol));
  painter.restore();
}

SymbolView::SymbolView(Symbol symbol, QColor color, int size, QWidget* parent)
    : QWidget(parent), symbol_(symbol), color_(color) {
  setFixedSize(size, size);
  setAttribute(Qt::WA_TranslucentBackground);
}

void SymbolView::setSymbol(Symbol symbol, QColor color) {
  if (symbol == symbol_ && color == color_) return;
  symbol_ = symbol;
  color_ = color;
  update();
}

void SymbolView::paintEvent(QPaintEvent*) {
  QPainter painter(this);
  paintSymbol(painter, symbol_, rect(), color_);
}

}  // namespace corvane
