/// "store/config" and "redundancy/config": where records are mirrored, and how it is decided who acts.  Read
/// at start; a change needs a restart.
#pragma once

#include "State/Record.h"

#include <string>
#include <string_view>

namespace Store {

class Config : public State::Record<Config> {
public:
    static constexpr std::string_view type = "Store::Config";

    /// "unix:/run/redis/redis.sock" or "ADDRESS:PORT"; empty, and no Sentinels: no store.
    [[nodiscard]] const std::string& redis() const { return redis_; }
    /// In place of one server: addresses of Sentinels, separated by blanks, and what they call the master.
    [[nodiscard]] const std::string& sentinels() const { return sentinels_; }
    [[nodiscard]] const std::string& master() const { return master_; }
    [[nodiscard]] bool used() const { return !redis_.empty() || !sentinels_.empty(); }
    /// Of the switch, which all its supervisors share.
    [[nodiscard]] const std::string& name() const { return name_; }
    [[nodiscard]] const std::string& user() const { return user_; }
    [[nodiscard]] const std::string& passwordFile() const { return passwordFile_; }
    [[nodiscard]] const std::string& sentinelUser() const { return sentinelUser_; }
    [[nodiscard]] const std::string& sentinelPasswordFile() const { return sentinelPasswordFile_; }
    [[nodiscard]] bool tls() const { return tls_; }
    [[nodiscard]] const std::string& tlsAuthorities() const { return tlsAuthorities_; }
    [[nodiscard]] const std::string& tlsCertificate() const { return tlsCertificate_; }
    [[nodiscard]] const std::string& tlsKey() const { return tlsKey_; }
    [[nodiscard]] const std::string& tlsName() const { return tlsName_; }
    /// Seconds until a store that does not answer counts as lost.
    [[nodiscard]] double patience() const { return patience_; }
    /// Records that other programs write in the store, and this one reads there.
    [[nodiscard]] const State::FlatMap<std::string, bool>& inputs() const { return inputs_; }

    template <class F>
    static constexpr void fields(F&& each) {
        each(State::scalar("redis", &Config::redis_));
        each(State::scalar("sentinels", &Config::sentinels_));
        each(State::scalar("master", &Config::master_));
        each(State::scalar("name", &Config::name_));
        each(State::scalar("user", &Config::user_));
        each(State::scalar("passwordFile", &Config::passwordFile_));
        each(State::scalar("sentinelUser", &Config::sentinelUser_));
        each(State::scalar("sentinelPasswordFile", &Config::sentinelPasswordFile_));
        each(State::scalar("tls", &Config::tls_));
        each(State::scalar("tlsAuthorities", &Config::tlsAuthorities_));
        each(State::scalar("tlsCertificate", &Config::tlsCertificate_));
        each(State::scalar("tlsKey", &Config::tlsKey_));
        each(State::scalar("tlsName", &Config::tlsName_));
        each(State::scalar("patience", &Config::patience_, 0.1, 60.0));
        each(State::map("inputs", &Config::inputs_));
    }

private:
    std::string redis_;
    std::string sentinels_;
    std::string master_;
    std::string name_{"switch"};
    std::string user_;
    std::string passwordFile_;
    std::string sentinelUser_;
    std::string sentinelPasswordFile_;
    bool tls_ = false;
    std::string tlsAuthorities_;
    std::string tlsCertificate_;
    std::string tlsKey_;
    std::string tlsName_;
    double patience_ = 2.0;
    State::FlatMap<std::string, bool> inputs_;
};

class RedundancyConfig : public State::Record<RedundancyConfig> {
public:
    static constexpr std::string_view type = "Store::RedundancyConfig";

    /// Seconds for which a role is given; 0: this supervisor is the only one, and always acts.
    [[nodiscard]] double lease() const { return lease_; }
    /// Of this supervisor, for people; empty: the machine's.
    [[nodiscard]] const std::string& name() const { return name_; }
    /// What the paths of files begin with that the supervisors of one machine share; empty: none do.
    [[nodiscard]] const std::string& files() const { return files_; }

    template <class F>
    static constexpr void fields(F&& each) {
        each(State::scalar("lease", &RedundancyConfig::lease_, 0.0, 60.0));
        each(State::scalar("name", &RedundancyConfig::name_));
        each(State::scalar("files", &RedundancyConfig::files_));
    }

private:
    double lease_ = 0.0;
    std::string name_;
    std::string files_;
};

}  // namespace Store

// Made once, in the source file beside this header.
extern template class State::Record<Store::Config>;
extern template class State::Record<Store::RedundancyConfig>;
