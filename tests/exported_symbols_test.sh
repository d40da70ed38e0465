#!/bin/sh
# Checks what libQuorvex.so shows the dynamic linker: its SONAME, and that it
# exports the C functions and the public C++ classes and nothing else.
# Usage: exported_symbols_test.sh PATH_TO_libQuorvex.so
set -eu
library=$1
status=0

soname=$(readelf -d "$library" | sed -n 's/.*(SONAME).*\[\(.*\)\]/\1/p')
if [ "$soname" != "libQuorvex.so.0" ]; then
  echo "SONAME is '$soname', expected libQuorvex.so.0"
  status=1
fi

symbols=$(nm -D --defined-only "$library" | awk '{ $1 = ""; $2 = ""; sub(/^  /, ""); print }' | c++filt)

# C functions of the three families; members, vtables and type information
# of ByteArray and the Lexarium classes; the writer's record encoders; the
# small-block pool that Rc's inline code calls.
unexpected=$(printf '%s\n' "$symbols" | grep -Ev \
  -e '^(byte_array|index_writer|index_reader|index_verifier|search_results?|search_options|search_hits)_[a-z_]+$' \
  -e '^quorvex_(free|fold|folding_version)$' \
  -e '^ByteArray::' \
  -e '^push_word_(value|key)_into_data\(' \
  -e '^quorvex_small_block_(allocate|release)$' \
  -e '^(typeinfo|typeinfo name|vtable) for (ByteArray|Lexarium::[A-Za-z:]+)$' \
  -e '^Lexarium::(Writer::|Reader::)?[A-Za-z_]+(::~?[A-Za-z_]+)?(\[abi:cxx11\])?(\(|::operator)' \
  -e '^Lexarium::(Writer::|Reader::)?[a-z_]+\(' || true)
if [ -n "$unexpected" ]; then
  echo "unexpected exported symbols:"
  printf '  %s\n' "$unexpected"
  status=1
fi

for name in byte_array_new_empty byte_array_new_on_user_data byte_array_new_clone_from \
            byte_array_new_borrow_from byte_array_get_length byte_array_get_bytes byte_array_free \
            index_writer_new index_writer_add_item index_writer_to_bytes_result \
            index_writer_bytes_result_free index_writer_free \
            index_reader_new_from_directory index_reader_new_from_files index_reader_new_from_bytes \
            index_reader_new_mapped index_reader_error_free \
            index_reader_free index_reader_search search_results_get_count search_result_item_get \
            search_results_free search_result_item_free \
            index_verifier_check_directory index_verifier_check_bytes index_verifier_message_free \
            quorvex_fold quorvex_folding_version quorvex_free index_reader_find index_reader_get_folding \
            index_reader_get_description search_options_new search_options_set_limit search_options_free \
            search_hits_get_count search_hits_get_key search_hits_get_value search_hits_get_position \
            search_hits_free \
            'ByteArray::borrow(unsigned int, unsigned int) const'; do
  if ! printf '%s\n' "$symbols" | grep -Fxq "$name"; then
    echo "missing exported symbol: $name"
    status=1
  fi
done

# Internal helpers stay hidden.
for name in joinByteArrays string_from_c make_handle release_handle make_view decode_well_formed _BlobBuffer; do
  if printf '%s\n' "$symbols" | grep -q "$name"; then
    echo "internal symbol exported: $name"
    status=1
  fi
done

[ "$status" -eq 0 ] && echo "$(printf '%s\n' "$symbols" | wc -l) exported symbols, SONAME $soname"
exit "$status"
