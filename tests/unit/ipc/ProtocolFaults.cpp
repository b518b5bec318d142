#include <OKVPlatform/ipc/Protocol.h>

// Compiled on its own, once as it stands and once with each fault, which must not compile.

class Lamp {
public:
    virtual ~Lamp() = default;
    virtual bool isLit() = 0;
    virtual bool isWarm() = 0;
    virtual void dim_to(std::int32_t room, std::int32_t level) = 0;
};

#if defined(OKV_FAULT_NO_ROW)
template <>
inline constexpr auto okv::protocol<Lamp> = okv::protocolTable(okv::row<&Lamp::dim_to>("dim:to:"));
#elif defined(OKV_FAULT_COLONS)
template <>
inline constexpr auto okv::protocol<Lamp> = okv::protocolTable(okv::row<&Lamp::isLit>("isLit"),
                                                               okv::row<&Lamp::dim_to>("dim:to"));
#elif defined(OKV_FAULT_SELECTOR_TWICE)
template <>
inline constexpr auto okv::protocol<Lamp> = okv::protocolTable(okv::row<&Lamp::dim_to>("dim:to:"),
                                                               okv::row<&Lamp::isLit>("isLit"),
                                                               okv::row<&Lamp::isWarm>("isLit"));
#elif defined(OKV_FAULT_METHOD_TWICE)
template <>
inline constexpr auto okv::protocol<Lamp> = okv::protocolTable(okv::row<&Lamp::dim_to>("dim:to:"),
                                                               okv::row<&Lamp::isLit>("isLit"),
                                                               okv::row<&Lamp::isLit>("isBright"));
#else
template <>
inline constexpr auto okv::protocol<Lamp> = okv::protocolTable(okv::row<&Lamp::isLit>("isLit"),
                                                               okv::row<&Lamp::dim_to>("dim:to:"));
#endif

bool use(okv::RemoteObject& remote);
bool use(okv::RemoteObject& remote) {
#if defined(OKV_FAULT_ARGUMENTS)
    okv::send<&Lamp::dim_to>(remote, 1);
#else
    okv::send<&Lamp::dim_to>(remote, 1, 2);
#endif
    return okv::send<&Lamp::isLit>(remote);
}
