#pragma once

#include <map>
#include <string>
#include <utility>

#include "qelCore/Object.h"
#include "qelNet/Export.h"
#include "qelNet/Session.h"

namespace qel {

class Packet;
class Peer;
class ReportGenerator;

/// What a network offers under a name: it makes a session for each connection that asks for one of its
/// session types. The host owns it, and keeps it until the network is stopped. Factories are registered
/// before the network listens; after that createSession and packetReceived are called from the strands of all
/// connections, several at a time.
class QELNET_EXPORT Service : public Object {
    QEL_CLASS(Service, Object)

    /// Makes the sessions of one type. Reference-counted; the service holds one reference.
    class QELNET_EXPORT SessionFactoryBase : public Object {
        QEL_CLASS(SessionFactoryBase, Object)

        SessionFactoryBase();
        ~SessionFactoryBase() override;

        /// A new session, not bound yet; the caller owns it and ends it with release.
        virtual Session* createSession() = 0;
    };

    /// The factory of the session class T, whose default constructor it can reach.
    template <class T>
    class SessionFactory : public SessionFactoryBase {
        QEL_CLASS(SessionFactory, SessionFactoryBase)

        Session* createSession() override { return new T(); }
    };

    using SessionFactories = std::map<short, SessionFactoryBase*>;

    /// `name` is what clients ask for; it is copied.
    explicit Service(const char* name);
    /// Copies share the session factories (each copy holds its own references).
    Service(const Service& other);
    Service(Service&& other) noexcept;
    Service& operator=(const Service& other);
    Service& operator=(Service&& other) noexcept;

    ~Service() override;

    /// A packet that its session declined. False (the base always) declines it again.
    virtual bool packetReceived(Peer* peer, Packet* packet);
    /// A new session of that type from its factory, or null when none is registered: the client is refused
    /// then.
    virtual Session* createSession(short type);
    /// Called about once a second, on a strand of the network, never twice at a time.
    virtual void tick();
    /// Adds the figures of this service; the base adds none.
    virtual void report(ReportGenerator* generator);

    const std::string& getName() const { return name_; }

    /// Sets the factory of a session type and takes a reference to it. The new one's count goes up before
    /// that of the one it replaces goes down, so registering the same factory again is harmless.
    void registerSessionFactory(short type, SessionFactoryBase* factory);
    const SessionFactories& getSessionFactories() const { return factories_; }

  private:
    void releaseFactories();

    std::string name_;
    SessionFactories factories_;
};

}  // namespace qel
