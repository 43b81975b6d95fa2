#pragma once

#include <QObject>
#include <QTimer>

// The longest gap between ticks of a 1 ms timer on the thread that owns the
// meter: how long that thread's event loop was held up.
class StallMeter : public QObject
{
public:
    explicit StallMeter(QObject *parent = nullptr);

    void start();
    void stop();
    // Forgets the gaps seen so far.
    void reset();
    double maxGapMs() const { return _maxGapMs; }

private:
    void tick();

    QTimer _timer;
    double _lastTickMs = 0;
    double _maxGapMs = 0;
};
