#include "Peer.h"

#ifdef OKV_BENCH_GRPC
#include "bench.grpc.pb.h"

#include <grpcpp/grpcpp.h>

#include <stdexcept>
#endif

namespace bench {

#ifdef OKV_BENCH_GRPC

namespace {

class Server final : public wire::Bench::Service {
    ::grpc::Status LookUp(::grpc::ServerContext*, const wire::Question* question,
                          wire::Answer* answer) override {
        answer->set_value(lookUp(question->key()));
        return ::grpc::Status::OK;
    }
};

void serve(const std::string& address, const std::function<void()>& ready) {
    Server service;
    ::grpc::ServerBuilder builder;
    builder.AddListeningPort(address, ::grpc::InsecureServerCredentials());
    builder.RegisterService(&service);
    const auto server = builder.BuildAndStart();
    ready();
    server->Wait();
}

Call connectStub(const std::string& address) {
    const std::shared_ptr<wire::Bench::Stub> stub =
        wire::Bench::NewStub(::grpc::CreateChannel(address, ::grpc::InsecureChannelCredentials()));
    return [stub] {
        ::grpc::ClientContext context;
        wire::Question question;
        wire::Answer answer;
        question.set_key(kKey);
        question.set_user(1);
        if (!stub->LookUp(&context, question, &answer).ok())
            throw std::runtime_error("gRPC failed");
    };
}

}  // namespace

Peer grpc(const std::string& folder) {
    const auto address = "unix:" + folder + "/grpc";
    auto server =
        std::make_shared<ServerProcess>([&](const auto& ready) { serve(address, ready); });
    return {"gRPC", {server}, [address] { return connectStub(address); }, {}};
}

#else

Peer grpc(const std::string&) {
    return absentPeer("gRPC", "libgrpc++-dev and protobuf-compiler-grpc are not installed");
}

#endif

}  // namespace bench
