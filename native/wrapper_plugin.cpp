// placeholder until this unit is written
