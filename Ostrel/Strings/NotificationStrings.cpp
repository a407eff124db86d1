// Texts of desktop notifications: titles per status, buttons, quota warnings, the settings sample
// and the short time units of "resets in".
#include "Ostrel/Localization.h"

namespace Ostrel {
namespace {

constexpr LocalizedText strings[] = {
    // key, English, French, German, Spanish, Portuguese
    {"notif.waiting", "{} is waiting for you", "{} attend votre réponse", "{} wartet auf dich",
     "{} te está esperando", "{} está esperando por você"},
    {"notif.idle", "{} is idle", "{} est inactif", "{} ist untätig", "{} está inactivo", "{} está ocioso"},
    {"notif.done", "{} has ended", "{} a terminé", "{} ist beendet", "{} ha terminado", "{} terminou"},
    {"notif.failed", "{} failed (exit code {})", "{} a échoué (code de sortie {})",
     "{} ist fehlgeschlagen (Exit-Code {})", "{} falló (código de salida {})",
     "{} falhou (código de saída {})"},
    {"notif.action.approve", "Approve", "Approuver", "Erlauben", "Aprobar", "Aprovar"},
    {"notif.action.deny", "Deny", "Refuser", "Ablehnen", "Denegar", "Negar"},
    {"notif.action.show", "Show", "Afficher", "Anzeigen", "Mostrar", "Mostrar"},
    {"notif.quota75", "{0}: {1} is 75% used", "{0} : {1} utilisé à 75 %", "{0}: {1} zu 75 % verbraucht",
     "{0}: {1} usado al 75 %", "{0}: {1} com 75% usado"},
    {"notif.quota90", "{0}: {1} is 90% used", "{0} : {1} utilisé à 90 %", "{0}: {1} zu 90 % verbraucht",
     "{0}: {1} usado al 90 %", "{0}: {1} com 90% usado"},
    {"notif.quotaBody", "{}% of the window used.", "{} % de la fenêtre utilisés.",
     "{} % des Zeitfensters verbraucht.", "{} % de la ventana usado.", "{}% da janela usados."},
    {"quota.resetIn", "Resets in {}.", "Réinitialisation dans {}.", "Wird in {} zurückgesetzt.",
     "Se restablece en {}.", "Reinicia em {}."},
    {"notif.resumed", "{} resumed after the rate limit", "{} a repris après la limite d'utilisation",
     "{} läuft nach dem Nutzungslimit weiter", "{} se reanudó tras el límite de uso",
     "{} foi retomado após o limite de uso"},
    {"settings.notif.test", "Ostrel notifications work", "Les notifications d'Ostrel fonctionnent",
     "Ostrel-Benachrichtigungen funktionieren", "Las notificaciones de Ostrel funcionan",
     "As notificações do Ostrel funcionam"},
    {"settings.notif.testBody", "This is how a session in the background tells you it needs you.",
     "C'est ainsi qu'une session en arrière-plan vous signale qu'elle a besoin de vous.",
     "So meldet sich eine Sitzung im Hintergrund, wenn sie dich braucht.",
     "Así te avisa una sesión en segundo plano cuando te necesita.",
     "É assim que uma sessão em segundo plano avisa que precisa de você."},
    {"time.short.days", "{}d", "{} j", "{} T.", "{} d", "{} d"},
    {"time.short.hours", "{}h", "{} h", "{} Std.", "{} h", "{} h"},
    {"time.short.minutes", "{}m", "{} min", "{} Min.", "{} min", "{} min"},
};

} // namespace

std::span<const LocalizedText> notificationStrings() {
    return strings;
}

} // namespace Ostrel
