// Cases told in words, parted by blanks: first those of the test, then behind each "|" a name, of a callback or a
// thread, and the words that are its own. Beside the words that a test knows there are marks: "in!" sets one, "in?"
// waits for it, "in." wants it there already.
#pragma once

#include <gtest/gtest.h>

#include <chrono>
#include <condition_variable>
#include <functional>
#include <map>
#include <mutex>
#include <set>
#include <sstream>
#include <string>

class Words {
  public:
    using Argument = const std::string &; // behind the ":" of a word
    using Meanings = std::map<std::string, std::function<void(Argument)>>;

    Words(const std::string &text, Meanings meanings) : meanings_(std::move(meanings)) {
        std::istringstream parts(text);
        std::string name = "test";
        do {
            std::getline(parts, parts_[name], '|');
        } while (parts >> name);
    }
    // Does what the words of a part say, if there is one.
    void play(const std::string &name) {
        const auto part = parts_.find(name);
        std::istringstream words(part == parts_.end() ? "" : part->second);
        for (std::string word; words >> word;) {
            SCOPED_TRACE(name + ": " + word);
            const size_t colon = std::min(word.find(':'), word.size());
            const auto meaning = meanings_.find(word.substr(0, colon));
            if (meaning != meanings_.end())
                meaning->second(word.substr(std::min(colon + 1, word.size())));
            else
                mark(word.substr(0, word.size() - 1), word.back());
        }
    }

  private:
    void mark(const std::string &name, char what) {
        std::unique_lock lock(mutex_);
        if (what == '!')
            marks_.insert(name);
        changed_.notify_all();
        const auto limit = std::chrono::seconds(what == '?' ? 20 : 0);
        EXPECT_TRUE(changed_.wait_for(lock, limit, [&] { return marks_.count(name); }));
    }
    const Meanings meanings_;
    std::map<std::string, std::string> parts_;
    std::mutex mutex_;
    std::condition_variable changed_;
    std::set<std::string> marks_;
};
