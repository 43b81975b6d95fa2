#include "ProtectionStatus.h"

#include <algorithm>

ProtectionStatus::Level ProtectionStatus::level() const
{
    Level worst = Protected;
    for (const Reason &reason : _reasons)
        worst = std::max(worst, reason.level);
    return worst;
}

QStringList ProtectionStatus::reasons() const
{
    QStringList texts;
    for (Level level : {Off, Partial}) {
        for (const Reason &reason : _reasons) {
            if (reason.level == level)
                texts << reason.text;
        }
    }
    return texts;
}

QString ProtectionStatus::levelName(Level level)
{
    switch (level) {
    case Protected:
        return QStringLiteral("protected");
    case Partial:
        return QStringLiteral("partial");
    case Off:
        break;
    }
    return QStringLiteral("off");
}

QString ProtectionStatus::description() const
{
    QStringList lines{levelName(level())};
    for (const QString &reason : reasons())
        lines << QStringLiteral("- ") + reason;
    return lines.join(QLatin1Char('\n'));
}

void ProtectionStatus::setReason(const QString &key, Level level, const QString &text, bool toldAlready)
{
    auto found = std::find_if(_reasons.begin(), _reasons.end(), [&](const Reason &r) { return r.key == key; });
    if (found != _reasons.end() && found->level == level && found->text == text)
        return;
    const bool isNew = found == _reasons.end() || found->level < level;
    if (found != _reasons.end()) {
        found->level = level;
        found->text = text;
    } else {
        _reasons.append({key, level, text});
    }
    emit changed();
    if (isNew && !toldAlready)
        emit worsened(level, text);
}

void ProtectionStatus::clearReason(const QString &key)
{
    removeWhere([&](const Reason &reason) { return reason.key == key; });
}

void ProtectionStatus::clearReasons(const QString &prefix, const QStringList &keep)
{
    removeWhere([&](const Reason &reason) { return reason.key.startsWith(prefix) && !keep.contains(reason.key); });
}

bool ProtectionStatus::hasReason(const QString &key) const
{
    return std::any_of(_reasons.begin(), _reasons.end(), [&](const Reason &reason) { return reason.key == key; });
}

void ProtectionStatus::removeWhere(const std::function<bool(const Reason &)> &test)
{
    const qsizetype removed = _reasons.removeIf(test);
    if (removed == 0)
        return;
    emit changed();
    if (_reasons.isEmpty())
        emit protectedAgain();
}
