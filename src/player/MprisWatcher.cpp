#include "player/MprisWatcher.h"

#include <QDBusArgument>
#include <QDBusPendingCallWatcher>
#include <QDBusPendingReply>
#include <QTimer>
#include <cmath>

namespace velquin {

namespace {

const QString mprisPrefix = QStringLiteral("org.mpris.MediaPlayer2.");
const QString mprisPath = QStringLiteral("/org/mpris/MediaPlayer2");
const QString playerInterface = QStringLiteral("org.mpris.MediaPlayer2.Player");
const QString propertiesInterface = QStringLiteral("org.freedesktop.DBus.Properties");
const QString busService = QStringLiteral("org.freedesktop.DBus");
constexpr int callTimeoutMs = 5000;

}  // namespace

MprisWatcher::MprisWatcher(QDBusConnection bus, QObject* parent) : QObject(parent), bus_(std::move(bus)) {}

void MprisWatcher::start() {
    bus_.connect(busService, QStringLiteral("/org/freedesktop/DBus"), busService,
                 QStringLiteral("NameOwnerChanged"), this, SLOT(nameOwnerChanged(QString, QString, QString)));
    // One subscription for every sender: the sender's unique name tells the players apart.
    bus_.connect(QString(), mprisPath, propertiesInterface, QStringLiteral("PropertiesChanged"), this,
                 SLOT(propertiesChanged(QDBusMessage)));
    listNames();
}

const MprisWatcher::Player* MprisWatcher::followed() const {
    const Player* best = nullptr;
    for (const auto& [name, player] : players_) {
        if (player.status == QLatin1String("Playing") &&
            (!best || player.startedPlaying > best->startedPlaying)) {
            best = &player;
        }
    }
    return best;
}

QString MprisWatcher::followedName() const {
    const Player* player = followed();
    for (const auto& [name, p] : players_) {
        if (&p == player) return name;
    }
    return {};
}

void MprisWatcher::listNames() {
    const auto call = QDBusMessage::createMethodCall(busService, QStringLiteral("/org/freedesktop/DBus"),
                                                     busService, QStringLiteral("ListNames"));
    auto* watcher = new QDBusPendingCallWatcher(bus_.asyncCall(call, callTimeoutMs), this);
    connect(watcher, &QDBusPendingCallWatcher::finished, this, [this](QDBusPendingCallWatcher* w) {
        w->deleteLater();
        const QDBusPendingReply<QStringList> reply = *w;
        if (reply.isError()) return;
        for (const QString& name : reply.value()) {
            if (name.startsWith(mprisPrefix) && !players_.count(name)) {
                players_[name];
                fetch(name);
            }
        }
    });
}

void MprisWatcher::fetch(const QString& name) {
    auto call =
        QDBusMessage::createMethodCall(name, mprisPath, propertiesInterface, QStringLiteral("GetAll"));
    call << playerInterface;
    auto* watcher = new QDBusPendingCallWatcher(bus_.asyncCall(call, callTimeoutMs), this);
    connect(watcher, &QDBusPendingCallWatcher::finished, this, [this, name](QDBusPendingCallWatcher* w) {
        w->deleteLater();
        const QDBusMessage reply = w->reply();
        const auto it = players_.find(name);
        if (it == players_.end() || reply.type() != QDBusMessage::ReplyMessage ||
            reply.arguments().isEmpty()) {
            return;
        }
        // A reply from a process that has since lost the name is stale.
        if (!it->second.owner.isEmpty() && it->second.owner != reply.service()) return;
        it->second.owner = reply.service();
        apply(it->second, asMap(reply.arguments().constFirst()));
    });
}

void MprisWatcher::nameOwnerChanged(const QString& name, const QString& oldOwner, const QString& newOwner) {
    Q_UNUSED(oldOwner);
    if (!name.startsWith(mprisPrefix)) return;
    if (newOwner.isEmpty()) {
        if (players_.erase(name)) changed();
        return;
    }
    // A new process under the name: nothing of the old one's state holds.
    const bool wasFollowed = followedName() == name;
    Player fresh;
    fresh.owner = newOwner;
    players_[name] = fresh;
    fetch(name);
    if (wasFollowed) changed();
}

void MprisWatcher::propertiesChanged(const QDBusMessage& message) {
    const auto args = message.arguments();
    if (args.size() < 2 || args[0].toString() != playerInterface) return;
    const QString sender = message.service();
    const QVariantMap properties = asMap(args[1]);
    const QStringList invalidated = args.size() > 2 ? args[2].toStringList() : QStringList();
    bool known = false;
    for (auto& [name, player] : players_) {
        if (player.owner != sender) continue;
        known = true;
        apply(player, properties);
        if (!invalidated.isEmpty()) fetch(name);
    }
    // A player found by listing names is known by owner only once its first answer is in; a change it
    // announces before that may be newer than the answer, so ask again.
    if (!known) {
        for (const auto& [name, player] : players_) {
            if (player.owner.isEmpty()) fetch(name);
        }
    }
}

void MprisWatcher::apply(Player& player, const QVariantMap& properties) {
    const Player before = player;
    const auto status = properties.constFind(QStringLiteral("PlaybackStatus"));
    if (status != properties.constEnd() && status->typeId() == QMetaType::QString) {
        player.status = status->toString();
    }
    const auto metadata = properties.constFind(QStringLiteral("Metadata"));
    if (metadata != properties.constEnd()) player.track = trackFromMetadata(*metadata);
    const auto rate = properties.constFind(QStringLiteral("Rate"));
    if (rate != properties.constEnd() && rate->typeId() == QMetaType::Double) {
        const double value = rate->toDouble();
        // Rate 0 means paused to some players; a reading at 0 BPM would mean nothing.
        if (std::isfinite(value) && value > 0 && value <= 100) player.rate = value;
    }
    if (player.status == QLatin1String("Playing") && before.status != QLatin1String("Playing")) {
        player.startedPlaying = ++playClock_;
    }
    if (player.status != before.status || !(player.track == before.track) || player.rate != before.rate) {
        changed();
    }
}

void MprisWatcher::changed() {
    if (changePending_) return;
    changePending_ = true;
    QTimer::singleShot(0, this, [this] {
        changePending_ = false;
        if (onChange) onChange();
    });
}

}  // namespace velquin
