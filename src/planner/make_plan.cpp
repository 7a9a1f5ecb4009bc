#include "make_plan.h"

#include "stores.h"
#include "word_classes.h"

namespace kelvane {

plan make_plan(const plan_images& images, std::span<const moved_block> moves,
               const plan_rules& rules, const plan_settings& settings, packed_runs& forms) {
  plan planned;
  planned.order = settings.order;
  planned.moves.assign(moves.begin(), moves.end());
  moved_image moved = carry_out_moves(images, moves);
  if (rules.compression) {
    planned.fills = find_fills(images, moved);
  }
  word_settings words;
  words.order = settings.order;
  words.walk = {rules.compression, rules.short_stores, settings.packed_byte, settings.packed_entry};
  words.class_limit = rules.class_limit;
  word_choice choice = choose_words(images, moved, words);
  planned.classes = std::move(choice.classes);
  planned.words = std::move(choice.words);
  plan_stores(images, moved, choice.runs, rules, forms, planned);
  return planned;
}

}  // namespace kelvane
