// Functions with all kinds of names; main() calls each of them once.
namespace shop {
namespace {
void hidden() {}
}  // namespace

template <typename A, typename B>
struct Pair {};

struct Cart {
  Cart() {}
  ~Cart() {}
  void add(int) {}
  void add(const char*) {}
  int operator()(int) const { return 1; }
  bool operator<(const Cart&) const { return true; }
  operator const char*() const { return ""; }
  template <typename T>
  Cart& operator<<(T) {
    return *this;
  }
};

template <typename T>
T largest(T a, T) {
  return a;
}

template <typename T>
bool operator==(const Pair<T, T>&, const Pair<T, T>&) {
  return true;
}

template <typename K>
struct Shelf {
  template <typename V>
  void put(V) {}
  operator Pair<K, K>() const { return {}; }
};

namespace department_of_things_that_have_very_long_names {
namespace and_another_one_inside_it_that_has_no_short_name {
void last() {}
}  // namespace and_another_one_inside_it_that_has_no_short_name
}  // namespace department_of_things_that_have_very_long_names
}  // namespace shop

extern "C" void
a_function_of_plain_c_with_seventy_bytes_in_its_name_and_then_some_more_of_them_until_here() {}

int main() {
  using Long = shop::Pair<shop::Pair<unsigned long, unsigned long>, shop::Pair<char, short>>;
  shop::hidden();
  shop::Cart cart;
  cart.add(1);
  cart.add("");
  cart(1);
  (void)(cart < cart);
  (void)static_cast<const char*>(cart);
  cart << 1;
  shop::largest(1, 2);
  shop::largest(shop::Pair<int, char>{}, {});
  (void)(shop::Pair<int, int>{} == shop::Pair<int, int>{});
  [](int) {}(1);
  cart << Long{};
  shop::Shelf<Long>{}.put(1);
  (void)static_cast<shop::Pair<Long, Long>>(shop::Shelf<Long>{});
  shop::department_of_things_that_have_very_long_names::
      and_another_one_inside_it_that_has_no_short_name::last();
  a_function_of_plain_c_with_seventy_bytes_in_its_name_and_then_some_more_of_them_until_here();
}
