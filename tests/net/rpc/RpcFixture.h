#pragma once

#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <filesystem>
#include <fstream>
#include <functional>
#include <iterator>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "qelCore/RpcContext.h"
#include "qelCore/logging/CaptureSink.h"
#include "qelNet/MemoryTransport.h"
#include "qelNet/RpcClient.h"
#include "qelNet/RpcService.h"

namespace qel::rpc {

/// Permits everybody but "mallory" and writes down what it is told.
class NotingGuard : public RpcGuard {
  public:
    bool permits(const RpcCaller& caller, const RpcProvider::Call&) override {
        return caller.identity.user != "mallory";
    }
    std::string examine(const RpcCaller&, const RpcProvider::Call&, const Item&, std::uint64_t) override {
        return refusal;
    }
    void used(const RpcCaller& caller, const RpcProvider::Call& call, const Item&,
              const RpcUse& use) override {
        const std::lock_guard lock(mutex);
        uses.push_back(use);
        notes.push_back(caller.identity.user + "@" + caller.identity.device + " " + call.name.str() + " " +
                        std::to_string(use.rows) + " rows " + std::to_string(use.bytes) + " bytes, " +
                        describe(use.error));
    }
    std::vector<std::string> taken() {
        const std::lock_guard lock(mutex);
        return notes;
    }

    std::string refusal;
    std::mutex mutex;
    std::vector<std::string> notes;
    std::vector<RpcUse> uses;
};

/// A service of remote calls and its client in one process. The test's thread is the network; calls wait on another.
class RpcTest : public testing::Test {
  protected:
    void SetUp() override {
        std::string pattern = std::filesystem::temp_directory_path() / "rpc-XXXXXX";
        folder = ::mkdtemp(pattern.data());
        std::filesystem::create_directory(folder + "/client");
        serviceOptions.directory = folder + "/transfer";
        serviceOptions.threads = 2;
        transportOptions.client = Identity::make("anna", "desk-1", {});
    }
    void TearDown() override {
        client.reset();
        transport.reset();
        service.reset();
        EXPECT_EQ(callFolders(), 0u) << "folders of calls that have ended";
        std::filesystem::remove_all(folder);
    }

    void connect() {
        std::string error;
        service = std::make_unique<RpcService>("rpc", &provider, &guard, serviceOptions, error);
        ASSERT_EQ(error, "");
        transport = std::make_unique<MemoryTransport>(std::vector<Service*>{service.get()}, transportOptions);
        client = std::make_unique<RpcClient>(transport->getPeer(), "rpc");
        transport->deliver();
    }

    /// One hop each way: unlike MemoryTransport::deliver it ends, however quickly both ends answer each other.
    void step() {
        transport->deliverToService();
        transport->deliverToClient();
    }
    /// Makes a call while the network moves; `meanwhile` is the test's part, called again and again.
    RpcReply call(const RpcRequest& request, const std::function<void()>& meanwhile = {},
                  const RpcClient::Progress& progress = {}) {
        std::atomic<bool> done{false};
        RpcReply reply;
        std::thread waiting([&] {
            reply = client->call(request, progress);
            done = true;
        });
        while (!done) {
            step();
            if (meanwhile)
                meanwhile();
            std::this_thread::sleep_for(std::chrono::microseconds(200));
        }
        waiting.join();
        return reply;
    }
    RpcReply call(const std::string& name, const Item& arguments = {}) {
        RpcRequest request;
        request.name = name;
        request.arguments = arguments;
        return call(request);
    }
    /// Calls "slow", and cuts the connection once its handler has begun.
    RpcReply callCutOnce(const std::atomic<bool>& begun) {
        RpcRequest request;
        request.name = "slow";
        return call(request, [&] {
            if (begun)
                transport->cut();
        });
    }
    void pumpUntil(const std::function<bool()>& condition) {
        for (int i = 0; i < 20000 && !condition(); ++i) {
            if (transport)
                step();
            std::this_thread::sleep_for(std::chrono::microseconds(500));
        }
        EXPECT_TRUE(condition());
    }

    void add(const char* name, RpcProvider::Handler handler) {
        provider.addRPC(name, std::move(handler), "() : Any", "");
    }
    /// A call that sends one file of that content under the name of its first argument.
    void addSending(const char* name, const std::string& content) {
        add(name, [content](const RpcContext& context) {
            String target;
            context.getArguments().decodeAsString(target);
            const String path = context.getFileTransferTargetPath("report");
            std::ofstream(path.c_str(), std::ios::binary) << content;
            context.initiateFileTransfer(RpcContext::transferToClient, {{target, path}});
            finishAfterTransfer(context);
        });
    }
    static void finishAfterTransfer(const RpcContext& context) {
        context.addEventHandler([](const RpcContext& ended) {
            int code = 0;
            String status;
            if (!ended.getFileTransferStatus(code, status))
                return true;
            if (code == 0)
                ended.getResult().addBool(true);
            ended.finish();
            return false;
        });
    }
    RpcRequest requestFor(const char* name, const std::string& target) const {
        RpcRequest request;
        request.name = name;
        request.arguments.addString(target);
        request.targets = {target};
        return request;
    }

    std::string target(const std::string& name) const { return folder + "/client/" + name; }
    static std::string contentOf(const std::string& file) {
        std::ifstream in(file, std::ios::binary);
        return {std::istreambuf_iterator<char>(in), {}};
    }
    std::size_t clientFiles() const { return count(folder + "/client"); }
    std::uint64_t bytesAtClient() const {
        std::uint64_t bytes = 0;
        std::error_code fault;
        for (std::filesystem::directory_iterator at(folder + "/client", fault), end; !fault && at != end;
             at.increment(fault)) {
            std::error_code gone;
            const auto size = at->file_size(gone);
            bytes += gone ? 0 : size;
        }
        return bytes;
    }
    std::size_t callFolders() const {
        const std::size_t all = count(folder + "/transfer");
        return all == 0 ? 0 : all - 1;  // the lock file
    }
    static std::size_t count(const std::string& directory) {
        std::error_code fault;
        std::size_t entries = 0;
        for (std::filesystem::directory_iterator at(directory, fault), end; !fault && at != end;
             at.increment(fault))
            ++entries;
        return entries;
    }

    std::string folder;
    RpcProvider provider;
    NotingGuard guard;
    RpcServiceOptions serviceOptions;
    MemoryTransport::Options transportOptions;
    std::unique_ptr<RpcService> service;
    std::unique_ptr<MemoryTransport> transport;
    std::unique_ptr<RpcClient> client;
};

}  // namespace qel::rpc
