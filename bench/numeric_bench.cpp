// SPDX-License-Identifier: Apache-2.0
// Arithmetic on native and sortable operands, as arrays and as sums; decoding and sums of numeric columns; and the
// crossing count. 1Ki rows lie in the first cache, 16Ki in the second one, 16Mi in memory. Values are -1, 0 and 1, so
// that sums are the same in any order. Bytes per second count what is read and written.
//
// Peers: `plain_loop` is what one would write first, sums in row order; `native` is the library's kernel on operands
// that are both native; `adder_chain` does nothing but the additions of one lane vector, each of which waits for the
// one before; `read_both` loads both operands, 16 bytes at a time, and `memcpy` copies one.

#include <kdzk/host/sortable.h>

#include <cmath>
#include <cstring>
#include <memory>
#include <random>

#include "bench/bench.h"
#include "bench/peers/numeric_loops.h"

namespace kdzk_bench {
namespace {

constexpr uint32_t sizes[] = {1024, 16 * 1024, 16 * 1024 * 1024};
std::string size_of(uint32_t rows) { return rows < 1 << 20 ? std::to_string(rows >> 10) + "Ki" : "16Mi"; }

template <class T>
constexpr const char* type_name = sizeof(T) == 4 ? "float" : "double";

template <class T>
std::vector<T> small_numbers(uint32_t n, uint32_t seed) {
  std::mt19937 random(seed);
  std::vector<T> values(n);
  for (T& value : values) value = static_cast<T>(static_cast<int>(random() % 3) - 1);
  return values;
}

template <class T>
std::vector<uint8_t> sortable(const std::vector<T>& values) {
  std::vector<uint8_t> column(values.size() * sizeof(T));
  if constexpr (sizeof(T) == 4) kdzk_host_write_sortable_floats(values.data(), values.size(), column.data());
  if constexpr (sizeof(T) == 8) kdzk_host_write_sortable_doubles(values.data(), values.size(), column.data());
  return column;
}

// Two operands in both forms, the records that lead to them, and an output.
template <class T>
struct Columns {
  std::vector<T> left, right, out;
  std::vector<uint8_t> sortable_left, sortable_right;
  kdzk_enc_ctx enc{}, right_enc{};
  kdzk_vec n_left{}, n_right{}, c_left{}, c_right{}, result{};
  kdzk_exec exec{};

  Columns(uint32_t n, uint32_t out_rows)
      : left(small_numbers<T>(n, 1)),
        right(small_numbers<T>(n, 2)),
        out(out_rows),
        sortable_left(sortable(left)),
        sortable_right(sortable(right)) {
    enc.float_kind = sizeof(T) == 4 ? 1 : 2;
    for (kdzk_vec* vec : {&n_left, &n_right, &c_left, &c_right}) {
      vec->enc_ctx = vec == &n_right || vec == &c_right ? &right_enc : &enc;
      vec->nrows = n;
    }
    n_left.data = left.data();
    n_right.data = right.data();
    c_left.data = sortable_left.data();
    c_right.data = sortable_right.data();
    result.data = out.data();
    exec.flags = KDZK_EX_SUM;
  }
  Answer answer() {
    std::vector<uint64_t> bits((out.size() * sizeof(T) + 7) / 8);
    std::memcpy(bits.data(), out.data(), out.size() * sizeof(T));
    std::fill(out.begin(), out.end(), T{0});
    return {0, bits};
  }
};

enum Forms { n_n, n_c, c_n, c_c };
constexpr const char* form_names[] = {"_n_n", "_n_c", "_c_n", "_c_c"};

// Calls the kernel of that operation on the columns, each in its form.
template <class T>
std::function<void()> call(std::shared_ptr<Columns<T>> c, uint32_t op, Forms forms, bool sum) {
  const uint32_t row = (sizeof(T) == 8 ? KDZK_ROW_DOUBLE : 0) + ((forms & 2) != 0 ? KDZK_ROW_SORTABLE_LEFT : 0) +
                       ((forms & 1) != 0 ? KDZK_ROW_SORTABLE_RIGHT : 0) + (sum ? KDZK_ROW_VARIANT : 0);
  const kdzk_kernel kernel = library().dispatch[kdzk_id_of(row, op)];
  return [=] {
    if (sum) c->out[0] = 0;
    kernel.arithmetic(&c->result, (forms & 2) != 0 ? &c->c_left : &c->n_left,
                      (forms & 1) != 0 ? &c->c_right : &c->n_right, nullptr);
  };
}

template <class T>
void add_sums(Forms forms, uint32_t n) {
  add_group(std::string("add_") + type_name<T> + form_names[forms] + "_sum", size_of(n), n, uint64_t{n} * 2 * sizeof(T),
            [=] {
              const auto c = std::make_shared<Columns<T>>(n, 1);
              const auto answer = [=] { return c->answer(); };
              std::vector<Peer> peers = {
                  {"kdzk", call<T>(c, KDZK_OP_ADD, forms, true), answer},
                  {"plain_loop", [=] { c->out[0] = PlainLoops<T>::sum(c->left.data(), c->right.data(), n); }, answer},
                  {"adder_chain", [=] { PlainLoops<T>::adder_chain(n); }, nullptr},
                  {"read_both", [=] { read_both(c->left.data(), c->right.data(), n * sizeof(T)); }, nullptr}};
              if (forms != n_n) peers.push_back({"native", call<T>(c, KDZK_OP_ADD, n_n, true), answer});
              return peers;
            });
}

template <class T>
void add_arrays(Forms forms, uint32_t n) {
  add_group(std::string("add_") + type_name<T> + form_names[forms], size_of(n), n, uint64_t{n} * 3 * sizeof(T), [=] {
    const auto c = std::make_shared<Columns<T>>(n, n);
    const auto answer = [=] { return c->answer(); };
    std::vector<Peer> peers = {{"kdzk", call<T>(c, KDZK_OP_ADD, forms, false), answer},
                               {"plain_loop",
                                [=] {
                                  if (forms == n_n)
                                    PlainLoops<T>::add(c->left.data(), c->right.data(), n, c->out.data());
                                  if (forms == c_c)
                                    PlainLoops<T>::add_sortable(c->sortable_left.data(), c->sortable_right.data(), n,
                                                                c->out.data());
                                },
                                answer},
                               {"memcpy", [=] { std::memcpy(c->out.data(), c->left.data(), n * sizeof(T)); }, nullptr}};
    if (forms != n_n) peers.push_back({"native", call<T>(c, KDZK_OP_ADD, n_n, false), answer});
    return peers;
  });
}

template <class T>
void add_constant(uint32_t n) {
  add_group(std::string("mul_") + type_name<T> + "_n_n/constant", size_of(n), n, uint64_t{n} * 2 * sizeof(T), [=] {
    const auto c = std::make_shared<Columns<T>>(n, n);
    c->right_enc.flags = KDZK_CONST;
    c->right[0] = 3;
    const auto answer = [=] { return c->answer(); };
    return std::vector<Peer>{
        {"kdzk", call<T>(c, KDZK_OP_MUL, n_n, false), answer},
        {"plain_loop", [=] { PlainLoops<T>::multiply(c->left.data(), 3, n, c->out.data()); }, answer}};
  });
}

template <class T>
void add_columns(uint32_t n) {
  const std::string type = std::string("_") + type_name<T>;
  const auto add = [&](const std::string& name, uint32_t out_rows, auto run, auto plain_loop, bool chain) {
    add_group(name + type, size_of(n), n, uint64_t{n} * sizeof(T), [=] {
      const auto c = std::make_shared<Columns<T>>(n, out_rows);
      const auto answer = [=] { return c->answer(); };
      std::vector<Peer> peers = {{"kdzk", [=] { run(*c); }, answer}, {"plain_loop", [=] { plain_loop(*c); }, answer}};
      if (chain) peers.push_back({"adder_chain", [=] { PlainLoops<T>::adder_chain(n); }, nullptr});
      return peers;
    });
  };
  add(
      "decode_sortable", n, [](Columns<T>& c) { library().decode_sortable(&c.result, &c.c_left, nullptr); },
      [=](Columns<T>& c) { PlainLoops<T>::decode(c.sortable_left.data(), n, c.out.data()); }, false);
  const auto plain_sum = [=](Columns<T>& c) { c.out[0] = PlainLoops<T>::sum_sortable(c.sortable_left.data(), n); };
  add(
      "decode_sortable_sum", 1,
      [](Columns<T>& c) {
        c.out[0] = 0;
        library().decode_sortable(&c.result, &c.c_left, &c.exec);
      },
      plain_sum, true);
  add(
      "sum_sortable", 1,
      [](Columns<T>& c) {
        c.out[0] = 0;
        library().sum_sortable(&c.result, &c.c_left, nullptr, nullptr);
      },
      plain_sum, false);
}

template <class T>
void add_groups(uint32_t n, uint32_t number) {
  add_group(
      std::string("sum_sortable_") + type_name<T> + "/" + std::to_string(number) + "_groups", size_of(n), n,
      uint64_t{n} * (sizeof(T) + 4), [=] {
        const auto c = std::make_shared<Columns<T>>(n, number);
        const auto ids = std::make_shared<std::vector<uint32_t>>(n);
        const auto groups = std::make_shared<kdzk_vec>();
        std::mt19937 random(3);
        for (uint32_t& id : *ids) id = random() % number;
        groups->data = ids->data();
        const auto answer = [=] { return c->answer(); };
        // Sums go on from call to call until the answer is taken: one call then, from zero.
        const auto reset = [=] { std::fill(c->out.begin(), c->out.end(), T{0}); };
        return std::vector<Peer>{
            {"kdzk", [=] { reset(), library().sum_sortable(&c->result, &c->c_left, groups.get(), nullptr); }, answer},
            {"plain_loop",
             [=] {
               reset();
               PlainLoops<T>::sum_by_group(c->sortable_left.data(), ids->data(), n, c->out.data());
             },
             answer}};
      });
}

template <class Integer>
void add_integers(uint32_t n) {
  constexpr uint32_t width = 8 * sizeof(Integer);
  add_group("sum_integers_" + std::to_string(width) + "bit", size_of(n), n, uint64_t{n} * sizeof(Integer), [=] {
    const uint8_t* const column = random_bytes(uint64_t{n} * sizeof(Integer));
    const auto enc = std::make_shared<kdzk_enc_ctx>();
    const auto input = std::make_shared<kdzk_vec>(), result = std::make_shared<kdzk_vec>();
    const auto sum = std::make_shared<uint64_t>();
    enc->float_kind = 8;
    enc->width = width;
    input->data = const_cast<uint8_t*>(column);
    input->enc_ctx = enc.get();
    input->nrows = n;
    result->data = sum.get();
    const auto answer = [=] { return Answer{*sum, {}}; };
    return std::vector<Peer>{
        {"kdzk",
         [=] {
           *sum = 0;
           library().sum_sortable(result.get(), input.get(), nullptr, enc.get());
         },
         answer},
        {"plain_loop", [=] { *sum = sum_integers<Integer>(column, n); }, answer},
        {"read_both", [=] { read_both(column, column + n * sizeof(Integer) / 2, n * sizeof(Integer) / 2); }, nullptr}};
  });
}

// A polygon about the point, whose vertices have random radii, or a chain of vertices that lie anywhere.
void add_polygon(uint32_t n, bool at_random) {
  add_group("point_in_polygon", (at_random ? "random/" : "star/") + size_of(n), n, uint64_t{n} * 16, [=] {
    const auto xs = std::make_shared<std::vector<double>>(n), ys = std::make_shared<std::vector<double>>(n);
    std::mt19937 random(4);
    std::uniform_real_distribution<double> number(0.5, 1.5);
    for (uint32_t i = 0; i < n; i++) {
      const double angle = 6.283185307179586 * i / n, radius = 1 + 0.1 * number(random);
      (*xs)[i] = at_random ? number(random) : radius * std::cos(angle);
      (*ys)[i] = at_random ? number(random) : radius * std::sin(angle);
    }
    (*xs)[n - 1] = (*xs)[n - 2];  // a last edge that is never crossed: the closing ones then add nothing
    (*ys)[n - 1] = (*ys)[n - 2];
    const auto point = std::make_shared<double>(at_random ? 1.0 : 0.1);
    const auto count = std::make_shared<uint32_t>();
    const auto vecs = std::make_shared<std::vector<kdzk_vec>>(4);
    (*vecs)[0].data = count.get();
    (*vecs)[1].data = xs->data();
    (*vecs)[1].nrows = n;
    (*vecs)[2].data = ys->data();
    (*vecs)[3].data = point.get();
    const auto answer = [=] { return Answer{*count, {}}; };
    return std::vector<Peer>{
        {"kdzk",
         [=] {
           kdzk_vec* const v = vecs->data();
           library().point_in_polygon(v, v + 1, v + 2, v + 3, v + 3);
         },
         answer},
        {"plain_loop", [=] { *count = crossings_of_chain(xs->data(), ys->data(), n, *point, *point); }, answer}};
  });
}

template <class T>
void add_all(uint32_t n) {
  for (const Forms forms : {n_n, n_c, c_n, c_c}) add_sums<T>(forms, n);
  for (const Forms forms : {n_n, c_c}) add_arrays<T>(forms, n);
  add_constant<T>(n);
  add_columns<T>(n);
  add_groups<T>(n, 1000);
}

}  // namespace

void add_numeric() {
  for (const uint32_t n : sizes) {
    add_all<float>(n);
    add_all<double>(n);
    add_integers<int8_t>(n);
    add_integers<int16_t>(n);
    add_integers<int32_t>(n);
    add_integers<int64_t>(n);
  }
  add_groups<float>(sizes[1], 1);
  for (const uint32_t n : {sizes[0], sizes[1]}) {
    add_polygon(n, false);
    add_polygon(n, true);
  }
}

}  // namespace kdzk_bench
