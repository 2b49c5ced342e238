// SPDX-License-Identifier: Apache-2.0
#include "store.h"

#include "dict_store.h"
#include "error.h"

namespace ask {

std::unique_ptr<Store> make_store(std::string_view form, const Column& column, const Library& library) {
  if (form == "dict") return std::make_unique<DictStore>(column, library);
  throw Error("there is no storage form '" + std::string(form) + "'; the forms are: dict");
}

}  // namespace ask
