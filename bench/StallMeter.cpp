#include "StallMeter.h"

#include "BenchClock.h"

#include <algorithm>

StallMeter::StallMeter(QObject *parent)
    : QObject(parent)
{
    _timer.setTimerType(Qt::PreciseTimer);
    _timer.setInterval(1);
    connect(&_timer, &QTimer::timeout, this, &StallMeter::tick);
}

void StallMeter::start()
{
    reset();
    _timer.start();
}

void StallMeter::stop()
{
    tick();
    _timer.stop();
}

void StallMeter::reset()
{
    _lastTickMs = BenchClock::nowMs();
    _maxGapMs = 0;
}

void StallMeter::tick()
{
    const double now = BenchClock::nowMs();
    _maxGapMs = std::max(_maxGapMs, now - _lastTickMs);
    _lastTickMs = now;
}
