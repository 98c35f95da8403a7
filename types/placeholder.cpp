namespace VeskTapAgg {}
