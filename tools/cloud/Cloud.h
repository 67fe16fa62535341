#pragma once

#include <json/value.h>

#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <vector>

#include "tools/cloud/CloudSettings.h"
#include "tools/cloud/DeviceRegistry.h"
#include "tools/cloud/DrmpRegistry.h"
#include "tools/cloud/FaultPlan.h"
#include "tools/cloud/PayloadFaults.h"
#include "tools/cloud/RecordedRequest.h"
#include "tools/cloud/RequestLog.h"
#include "tools/cloud/Service.h"
#include "tools/cloud/SessionRegistry.h"
#include "tools/cloud/StreamRegistry.h"
#include "tools/cloud/UpdatePublisher.h"
#include "tools/cloud/UpdateRegistry.h"

namespace ZelCloud {

class ControlServer;
class DaService;
class PayloadServer;
class RelayServer;
class SpeedTest;
class SvService;
class TlsServer;

struct CloudOptions {
    // Output of make-pki.sh: server.crt, server.key, ca.crt, server.ocsp.der, and
    // for updates signer.key, signer.crt, update-ca.crt and device.crt.
    std::string pkiDir;
    int port = 0;             // 0: any free port
    int controlPort = -1;     // -1: no control interface, 0: any free port
    int payloadPort = -1;     // plain-HTTP payload server: -1 none, 0 any free port
    int relayPort = -1;       // plain-HTTP media relay: -1 none, 0 any free port
    bool quiet = false;       // no request lines on stdout
    Json::Value settings;     // initial operator settings (an object, or null)
    long longPollMs = 10000;  // how long sv/command/get holds a call without a task
};

// A local stand-in for the maker's cloud: one TLS server on 127.0.0.1 that
// serves every micro-service under "/api/v1/<service>/...", requires the device's
// client certificate, records every request, and can be told to misbehave.
// Update payloads are served under "/payloads/<id>" by the TLS server and by a
// plain-HTTP server of their own; the speed test's two ends under "/speedtest/".
// A media relay takes the agent's screen streams over plain HTTP and the
// control interface shows them.
class Cloud {
public:
    explicit Cloud(CloudOptions options);
    ~Cloud();
    Cloud(const Cloud&) = delete;
    Cloud& operator=(const Cloud&) = delete;

    // Opens the service port (and the payload port) early, for when the port must
    // be known before the certificates are made (it is part of the device
    // certificate's name).
    bool bind();
    // Loads the certificates from the PKI directory, binds what is not yet bound
    // and starts serving. False on failure, with the reason in error().
    bool start();
    // Stops promptly, cutting short any injected delay. Safe to call twice.
    void stop();
    int port() const { return port_; }
    int controlPort() const;
    // -1 without a payload server or until bound.
    int payloadPort() const;
    // -1 without a media relay or until bound.
    int relayPort() const;
    const std::string& error() const { return error_; }

    // The answer to one service request; what the transport sends back.
    struct Answer {
        int status = 200;
        std::string body;
        bool drop = false;  // close the connection without answering
    };
    // Serves one request as the TLS server's handler does: faults, dispatch, record.
    Answer serve(const std::string& method, const std::string& path, const std::string& host,
                 const std::string& cn, const std::string& authorization, const std::string& body,
                 const std::vector<std::string>& headers = {}, uint64_t connection = 0);

    // Control, in process; the control interface calls the same functions.
    // An event for an empty device goes to whichever device synchronises next.
    void queueEvent(const std::string& event, const Json::Value& parameters = Json::Value(),
                    std::optional<uint32_t> id = std::nullopt, const std::string& device = "");
    // {"device"?, "event", "id"?, "parameters"?}
    bool queueEvent(const Json::Value& fields, std::string& error);
    // Merges the keys into the settings handed out and asks every device to synchronise.
    void setSettings(const Json::Value& keys);
    Json::Value settings() const;
    void addFault(const FaultPlan::Fault& fault);
    // {"path", "status"? | "delayMs"? | "drop"? | "badJson"?, "count"?}, or
    // {"path", "body", "status"?, "count"?}
    bool addFault(const Json::Value& fields, std::string& error);
    void setUnsynchronized(unsigned count);
    // An empty device marks every device. False when the device is unknown.
    bool desynchronize(const std::string& device = "");

    void clearFaults() { faults_.clear(); }

    // Remote support. Queues the "startsvsession" event, as queueEvent does.
    void openSession(const std::string& device = "");
    // Queues one task, {"SESSION_ID", "TASK_ID", "REQUESTS": requests}, for the
    // device's active session; an empty device takes the active session opened
    // last. False, with the reason, when there is none or requests is not an array.
    bool queueTask(const Json::Value& requests, uint32_t& seqNum, std::string& error,
                   const std::string& device = "");
    // The same with the task request sent exactly as given, JSON or not.
    bool queueRawTask(const std::string& text, uint32_t& seqNum, std::string& error,
                      const std::string& device = "");
    // Every session ever opened, with its tasks and results.
    Json::Value sessions() const { return sessions_.toJson(); }
    // The session queueTask would use, or null.
    Json::Value activeSession(const std::string& device = "") const {
        return sessions_.active(device);
    }
    // Waits until the device's sessions (every device's, when empty) hold count results.
    bool waitForResults(size_t count, std::chrono::milliseconds timeout,
                        const std::string& device = "") const;
    // Waits until the predicate holds for sessions(); checked on every change, with
    // the sessions locked, so the predicate must not call back into the cloud.
    bool waitForSessions(const SessionRegistry::Predicate& predicate,
                         std::chrono::milliseconds timeout) const {
        return sessions_.waitFor(predicate, timeout);
    }
    void setLongPollMs(long ms);

    // Software updates. Encrypts and signs the update with the PKI's update
    // files, serves its payload and, unless spec.offer is false, queues the
    // "softwareupdate" event with its token for the device. Binds the ports
    // when not yet bound; false with a reason (no payload port for a plain url,
    // the PKI without the update files...).
    bool publishUpdate(const UpdateSpec& spec, PublishedUpdate& published, std::string& error);
    // Every update published, without the payload bytes.
    Json::Value updates() const { return updates_.toJson(); }
    // Every "su/download/complete" report, in order.
    std::vector<UpdateReport> updateReports() const { return updates_.reports(); }
    bool waitForUpdateReports(size_t count, std::chrono::milliseconds timeout) const {
        return updates_.waitForReports(count, timeout);
    }
    void addPayloadFault(const PayloadFaults::Fault& fault) { payloadFaults_.add(fault); }
    // {"id"?, "status"? | "delayMs"? | "drop"? | "corruptOffset"?, "count"?}
    bool addPayloadFault(const Json::Value& fields, std::string& error) {
        return payloadFaults_.add(fields, error);
    }
    void clearPayloadFaults() { payloadFaults_.clear(); }
    // The payload faults still to happen.
    Json::Value payloadFaults() const { return payloadFaults_.toJson(); }
    // Every payload request answered (recorded once its answer is sent or broken off).
    std::vector<PayloadRequest> payloadRequests() const { return updates_.requests(); }
    bool waitForPayloadRequests(size_t count, std::chrono::milliseconds timeout) const {
        return updates_.waitForRequests(count, timeout);
    }
    // Waits until count payload requests are being answered at once (held by a delay, say).
    bool waitForPayloadsInFlight(size_t count, std::chrono::milliseconds timeout) const {
        return updates_.waitForInFlight(count, timeout);
    }

    // Secure-object provisioning. A key for an empty device is the key of every
    // device without its own; a device is its common name or its device id. A
    // device whose key is unknown gets a token unchecked.
    void setDrmpKey(const std::string& device, int64_t index, const std::string& keyBytes);
    // {"device"?, "index", "key": hex}
    bool setDrmpKey(const Json::Value& fields, std::string& error);
    // Queues one operation (an object) or several (an array), handed out once, in
    // order, by the device's next work call; "valueText" stands for "value" as
    // plain text. An empty device is the one that called last, or, before any
    // has, whichever asks next. False, with the reason, for a bad operation.
    bool queueDrmpOperations(const Json::Value& operations, std::string& error,
                             const std::string& device = "");
    // Per device: token, deviceId, key known, seqNum, supported names, queued
    // operations, object states, results and token calls.
    Json::Value drmp() const { return drmp_.toJson(); }
    // The results a device reported (every device's, in order, when empty).
    std::vector<DrmpRegistry::Result> drmpResults(const std::string& device = "") const {
        return drmp_.results(device);
    }
    bool waitForDrmpResults(size_t count, std::chrono::milliseconds timeout,
                            const std::string& device = "") const {
        return drmp_.waitForResults(count, timeout, device);
    }
    // Waits until the predicate holds for drmp(); checked on every change, locked,
    // so the predicate must not call back into the cloud.
    bool waitForDrmp(const DrmpRegistry::Predicate& predicate,
                     std::chrono::milliseconds timeout) const {
        return drmp_.waitFor(predicate, timeout);
    }

    // The media relay's streams: [{"name", "producerid", "frames", "bytes",
    // "connected", "lastFrameAgeMs"}].
    Json::Value streams() const { return streams_.toJson(); }
    // The latest frame of a stream; false when it has none.
    bool latestFrame(const std::string& name, StreamRegistry::Frame& frame) const {
        return streams_.latest(name, frame);
    }
    // Waits for a frame of the stream numbered above `after`.
    StreamRegistry::Wait waitForFrame(const std::string& name, uint64_t after,
                                      std::chrono::milliseconds timeout,
                                      StreamRegistry::Frame& frame) const {
        return streams_.waitForFrame(name, after, timeout, frame);
    }
    // Waits until the predicate holds for streams(); checked on every change,
    // locked, so the predicate must not call back into the cloud.
    bool waitForStreams(const StreamRegistry::Predicate& predicate,
                        std::chrono::milliseconds timeout) const {
        return streams_.waitFor(predicate, timeout);
    }
    const StreamRegistry& streamRegistry() const { return streams_; }

    std::vector<RecordedRequest> requests() const { return log_.snapshot(); }
    void clearRequests() { log_.clear(); }
    Json::Value devices() const { return devices_.toJson(); }
    std::optional<DeviceRegistry::Device> device(const std::string& cn) const;
    void setQuiet(bool quiet) {
        log_.setQuiet(quiet);
        updates_.setQuiet(quiet);
    }

    // Wait for traffic without sleeping: woken on every request recorded.
    bool waitForRequests(size_t count, std::chrono::milliseconds timeout) const;
    bool waitFor(const RequestLog::Predicate& predicate, std::chrono::milliseconds timeout) const;
    // Waits until count requests are being served at once (held by a delay, say).
    bool waitForInFlight(size_t count, std::chrono::milliseconds timeout) const {
        return log_.waitForInFlight(count, timeout);
    }

private:
    void registerServices();
    void addService(std::unique_ptr<Service> service);
    // Applies the fault planned for the record's path. True when the fault is
    // the whole answer (record's status and note set); otherwise a delay
    // waited out is noted.
    bool applyFault(RecordedRequest& record, Answer& answer);
    // The settings that name the cloud's own address: the speed test's urls.
    void addAddressSettings();
    // False when the cloud stops during the delay.
    bool pause(long delayMs);

    CloudOptions options_;
    RequestLog log_;
    FaultPlan faults_;
    CloudSettings settings_;
    DeviceRegistry devices_;
    SessionRegistry sessions_;
    UpdateRegistry updates_;
    DrmpRegistry drmp_;
    PayloadFaults payloadFaults_;
    StreamRegistry streams_;
    std::map<std::string, std::unique_ptr<Service>> services_;
    DaService* da_ = nullptr;
    SvService* sv_ = nullptr;

    std::unique_ptr<TlsServer> server_;
    std::unique_ptr<PayloadServer> payloads_;
    std::unique_ptr<RelayServer> relay_;
    std::unique_ptr<SpeedTest> speedTest_;
    std::unique_ptr<ControlServer> control_;
    int port_ = 0;
    std::string error_;

    std::mutex stopMutex_;
    std::condition_variable stopped_;
    bool stopping_ = false;
};

}  // namespace ZelCloud
