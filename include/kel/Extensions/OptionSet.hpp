// kel::OptionSet — the base of the library's option sets (sets of bit flags).
//
// An option set is a value holding a fixed-width integer raw value whose bits are its members.
// A concrete set derives from OptionSet through CRTP, inherits the constructors and names its
// single-bit members as constants:
//
//     struct Options : kel::OptionSet<Options> {
//         using OptionSet::OptionSet;
//         static const Options fast;
//         static const Options safe;
//     };
//     inline constexpr Options Options::fast{1};
//     inline constexpr Options Options::safe{2};
//
//     Options chosen{Options::fast, Options::safe};   // from a list
//     Options raw(3);                                  // from a raw value
//     for (Options single : chosen.elements()) { ... } // single bits, lowest first
//
// Sets combine with `|` (union), `&` (intersection), `^` (symmetric difference) and `-`
// (difference), with the compound forms mutating in place.
//
// Thread rules: a value type; no shared state.
#pragma once

#include <concepts>
#include <cstddef>
#include <functional>
#include <initializer_list>
#include <iterator>
#include <optional>
#include <ranges>
#include <type_traits>

namespace kel {

template <class Derived, std::integral Raw>
class OptionSetElements;

template <class Derived, std::integral Raw = long long>
class OptionSet {
  public:
    using RawValue = Raw;

    // The empty set.
    constexpr OptionSet() noexcept = default;
    // The set whose members are the bits of `rawValue`, unknown bits included.
    constexpr explicit OptionSet(Raw rawValue) noexcept : rawValue_(rawValue) {}
    // The union of the listed options.
    constexpr OptionSet(std::initializer_list<Derived> options) noexcept {
        for (const Derived& option : options) {
            rawValue_ |= option.rawValue();
        }
    }

    constexpr Raw rawValue() const noexcept { return rawValue_; }
    constexpr bool isEmpty() const noexcept { return rawValue_ == 0; }

    // True if every bit of `member` is in this set (the empty set is contained in every set).
    constexpr bool contains(Derived member) const noexcept {
        return (rawValue_ & member.rawValue()) == member.rawValue();
    }
    constexpr bool isSubset(Derived other) const noexcept {
        return (rawValue_ & ~other.rawValue()) == 0;
    }
    constexpr bool isSuperset(Derived other) const noexcept { return contains(other); }
    constexpr bool isDisjoint(Derived other) const noexcept {
        return (rawValue_ & other.rawValue()) == 0;
    }

    // Adds `member`; true if it was not already contained.
    constexpr bool insert(Derived member) noexcept {
        const bool wasContained = contains(member);
        rawValue_ |= member.rawValue();
        return !wasContained;
    }
    // Removes `member`; gives the part of it that was contained, or none if nothing was.
    constexpr std::optional<Derived> remove(Derived member) noexcept {
        const Raw removed = rawValue_ & member.rawValue();
        rawValue_ &= ~member.rawValue();
        if (removed == 0) {
            return std::nullopt;
        }
        return Derived(removed);
    }

    // The single-bit members, lowest bit first, produced lazily.
    constexpr OptionSetElements<Derived, Raw> elements() const noexcept {
        return OptionSetElements<Derived, Raw>(rawValue_);
    }

    friend constexpr Derived operator|(Derived a, Derived b) noexcept {
        return Derived(static_cast<Raw>(a.rawValue() | b.rawValue()));
    }
    friend constexpr Derived operator&(Derived a, Derived b) noexcept {
        return Derived(static_cast<Raw>(a.rawValue() & b.rawValue()));
    }
    friend constexpr Derived operator^(Derived a, Derived b) noexcept {
        return Derived(static_cast<Raw>(a.rawValue() ^ b.rawValue()));
    }
    friend constexpr Derived operator-(Derived a, Derived b) noexcept {
        return Derived(static_cast<Raw>(a.rawValue() & ~b.rawValue()));
    }
    friend constexpr Derived& operator|=(Derived& a, Derived b) noexcept { return a = a | b; }
    friend constexpr Derived& operator&=(Derived& a, Derived b) noexcept { return a = a & b; }
    friend constexpr Derived& operator^=(Derived& a, Derived b) noexcept { return a = a ^ b; }
    friend constexpr Derived& operator-=(Derived& a, Derived b) noexcept { return a = a - b; }

    friend constexpr bool operator==(Derived a, Derived b) noexcept {
        return a.rawValue() == b.rawValue();
    }

    // A hash functor for unordered containers keyed by the option set.
    struct Hash {
        std::size_t operator()(Derived set) const noexcept {
            return std::hash<Raw>{}(set.rawValue());
        }
    };

  private:
    Raw rawValue_ = 0;
};

// The lazily produced range of an option set's single-bit members, lowest bit first. It holds
// a copy of the raw value, so it stays valid after the set it came from is gone.
template <class Derived, std::integral Raw>
class OptionSetElements : public std::ranges::view_interface<OptionSetElements<Derived, Raw>> {
    // Bits are walked on the unsigned form so that the sign bit is an ordinary member.
    using Bits = std::make_unsigned_t<Raw>;

  public:
    class Iterator {
      public:
        using value_type = Derived;
        using difference_type = std::ptrdiff_t;

        constexpr Iterator() noexcept = default;
        constexpr explicit Iterator(Bits remaining) noexcept : remaining_(remaining) {}

        // The lowest remaining bit.
        constexpr Derived operator*() const noexcept {
            return Derived(static_cast<Raw>(remaining_ & (~remaining_ + 1)));
        }
        constexpr Iterator& operator++() noexcept {
            remaining_ &= remaining_ - 1;
            return *this;
        }
        constexpr Iterator operator++(int) noexcept {
            Iterator before = *this;
            ++*this;
            return before;
        }
        friend constexpr bool operator==(Iterator a, Iterator b) noexcept {
            return a.remaining_ == b.remaining_;
        }
        friend constexpr bool operator==(Iterator it, std::default_sentinel_t) noexcept {
            return it.remaining_ == 0;
        }

      private:
        Bits remaining_ = 0;
    };

    constexpr OptionSetElements() noexcept = default;
    constexpr explicit OptionSetElements(Raw rawValue) noexcept
        : bits_(static_cast<Bits>(rawValue)) {}

    constexpr Iterator begin() const noexcept { return Iterator(bits_); }
    constexpr std::default_sentinel_t end() const noexcept { return {}; }

  private:
    Bits bits_ = 0;
};

}  // namespace kel
