#include "tools/orgsim/generate/word_lists.hpp"

#include <array>

namespace corvane::orgsim::WordLists {

namespace {

using namespace std::string_view_literals;

constexpr GivenName kGivenNames[] = {
    {"William", 'm', "Bill Will Billy Liam", ""},
    {"Robert", 'm', "Bob Rob Bobby Robbie", ""},
    {"Katherine", 'f', "Kate Katie Kathy Kat", "Catherine Kathryn"},
    {"Elizabeth", 'f', "Liz Beth Betty Eliza", "Elisabeth"},
    {"Margaret", 'f', "Maggie Peggy Meg", ""},
    {"James", 'm', "Jim Jimmy Jamie", ""},
    {"Richard", 'm', "Rick Rich Dick", ""},
    {"Michael", 'm', "Mike Mick", "Micheal"},
    {"Jonathan", 'm', "Jon Johnny", "Johnathan"},
    {"John", 'm', "Jack Johnny", "Jon"},
    {"Thomas", 'm', "Tom Tommy", ""},
    {"Joseph", 'm', "Joe Joey", ""},
    {"Charles", 'm', "Charlie Chuck", ""},
    {"Christopher", 'm', "Chris Kit", "Kristopher"},
    {"Daniel", 'm', "Dan Danny", ""},
    {"Matthew", 'm', "Matt", "Mathew"},
    {"Anthony", 'm', "Tony", "Antony"},
    {"Edward", 'm', "Ed Eddie Ted", ""},
    {"Alexander", 'm', "Alex Sasha", "Aleksander"},
    {"Andrew", 'm', "Andy Drew", ""},
    {"Steven", 'm', "Steve", "Stephen"},
    {"Patricia", 'f', "Pat Patty Trish", ""},
    {"Jennifer", 'f', "Jen Jenny", ""},
    {"Susan", 'f', "Sue Suzy", "Suzan"},
    {"Deborah", 'f', "Deb Debbie", "Debra"},
    {"Rebecca", 'f', "Becky Becca", "Rebekah"},
    {"Victoria", 'f', "Vicky Tori", ""},
    {"Samantha", 'f', "Sam Sammy", ""},
    {"Christine", 'f', "Chris Tina", "Kristine"},
    {"Alexandra", 'f', "Alex Sandra Lexi", ""},
    {"Nicholas", 'm', "Nick Nicky", "Nicolas"},
    {"Benjamin", 'm', "Ben Benny", ""},
    {"Samuel", 'm', "Sam Sammy", ""},
    {"Timothy", 'm', "Tim Timmy", ""},
    {"Gregory", 'm', "Greg", ""},
    {"Jacqueline", 'f', "Jackie", ""},
    {"Abigail", 'f', "Abby Gail", ""},
    {"Theodore", 'm', "Ted Teddy Theo", ""},
    {"Frederick", 'm', "Fred Freddie", "Frederic"},
    {"Josephine", 'f', "Jo Josie", ""},
    {"Francesca", 'f', "Fran Frankie", ""},
    {"Philip", 'm', "Phil", "Phillip"},
    {"Geoffrey", 'm', "Geoff", "Jeffrey"},
    {"Sarah", 'f', "", "Sara"},
    {"Anne", 'f', "Annie", "Ann"},
    {"Brian", 'm', "", "Bryan"},
    {"Eric", 'm', "", "Erik"},
    {"Carl", 'm', "", "Karl"},
    {"Olivia", 'f', "Liv", ""},
    {"Emma", 'f', "", ""},
    {"Noah", 'm', "", ""},
    {"Sophia", 'f', "Sophie", "Sofia"},
    {"Mia", 'f', "", ""},
    {"Lucas", 'm', "Luke", "Lukas"},
    {"Ethan", 'm', "", ""},
    {"Chloé", 'f', "", "Chloe"},
    {"Zoë", 'f', "", "Zoe"},
    {"José", 'm', "Pepe", "Jose"},
    {"André", 'm', "", "Andre"},
    {"Françoise", 'f', "", "Francoise"},
    {"Søren", 'm', "", "Soren"},
    {"Björn", 'm', "", "Bjorn"},
    {"Łukasz", 'm', "", "Lukasz"},
    {"Małgorzata", 'f', "Gosia", "Malgorzata"},
    {"Renée", 'f', "", "Renee"},
    {"Inès", 'f', "", "Ines"},
    {"Mohammed", 'm', "Mo", "Muhammad Mohamed"},
    {"Aisha", 'f', "", "Aysha"},
    {"Priya", 'f', "", ""},
    {"Rajesh", 'm', "Raj", ""},
    {"Oluwaseun", 'x', "Seun", ""},
    {"Siobhán", 'f', "", "Siobhan"},
    {"Niamh", 'f', "", ""},
    {"Zoltán", 'm', "", "Zoltan"},
    {"Jürgen", 'm', "", "Juergen"},
    {"Ümit", 'x', "", "Umit"},
    {"Dmitri", 'm', "Dima", "Dmitry"},
    {"Giuseppe", 'm', "Beppe Pino", ""},
    {"Francisco", 'm', "Paco Pancho", ""},
    {"Johannes", 'm', "Hans", ""},
    {"Kai", 'x', "", ""},
    {"Robin", 'x', "", ""},
    {"Jordan", 'x', "", ""},
};

constexpr NativeName kNativeNames[] = {
    {"山田", "太郎", "Yamada", "Taro", 'm', true},
    {"佐藤", "花子", "Sato", "Hanako", 'f', true},
    {"鈴木", "一郎", "Suzuki", "Ichiro", 'm', true},
    {"高橋", "美咲", "Takahashi", "Misaki", 'f', true},
    {"王", "伟", "Wang", "Wei", 'm', true},
    {"李", "娜", "Li", "Na", 'f', true},
    {"张", "敏", "Zhang", "Min", 'f', true},
    {"陈", "杰", "Chen", "Jie", 'm', true},
    {"김", "민준", "Kim", "Minjun", 'm', true},
    {"박", "서연", "Park", "Seoyeon", 'f', true},
    {"Иванов", "Сергей", "Ivanov", "Sergey", 'm', false},
    {"Петрова", "Анна", "Petrova", "Anna", 'f', false},
    {"Παπαδόπουλος", "Γιώργος", "Papadopoulos", "Giorgos", 'm', false},
    {"Nguyễn", "Thị Hương", "Nguyen", "Thi Huong", 'f', true},
    {"Trần", "Văn Minh", "Tran", "Van Minh", 'm', true},
};

constexpr FamilyName kFamilyNames[] = {
    {"Smith", "Smyth"}, {"Johnson", "Jonson"}, {"Williams", ""}, {"Brown", "Browne"},
    {"Jones", ""}, {"Garcia", "García"}, {"Miller", "Millar"}, {"Davis", "Davies"},
    {"Rodriguez", "Rodríguez"}, {"Martinez", "Martínez"}, {"Hernandez", "Hernández"},
    {"Lopez", "López"}, {"Gonzalez", "González"}, {"Wilson", ""}, {"Anderson", "Andersen"},
    {"Taylor", "Tailor"}, {"Moore", "More"}, {"Jackson", ""}, {"Martin", ""}, {"Lee", "Li"},
    {"Thompson", "Thomson"}, {"White", ""}, {"Harris", ""}, {"Clark", "Clarke"},
    {"Lewis", ""}, {"Robinson", ""}, {"Walker", ""}, {"Young", ""}, {"Allen", "Allan"},
    {"King", ""}, {"Wright", "Right"}, {"Scott", ""}, {"Nguyen", "Nguyễn"}, {"Hill", ""},
    {"Green", "Greene"}, {"Adams", ""}, {"Baker", ""}, {"Hall", ""}, {"Campbell", ""},
    {"Mitchell", ""}, {"Carter", ""}, {"Roberts", ""}, {"Knight", "Night"},
    {"Schmidt", "Schmitt"}, {"Müller", "Mueller"}, {"Schneider", ""}, {"Fischer", "Fisher"},
    {"Weiß", "Weiss"}, {"Dubois", ""}, {"Lefèvre", "Lefevre"}, {"Núñez", "Nunez"},
    {"Søgaard", "Sogaard"}, {"Kowalski", ""}, {"Wiśniewski", "Wisniewski"},
    {"Dvořák", "Dvorak"}, {"Ólafsson", "Olafsson"}, {"Yılmaz", "Yilmaz"},
    {"O'Brien", "OBrien"}, {"O'Connor", "O Connor"}, {"McDonald", "MacDonald"},
    {"MacLeod", "McLeod"}, {"van der Berg", "Vandenberg"}, {"de la Cruz", "Delacruz"},
    {"Smith-Jones", "Smith Jones"}, {"Psaltis", ""}, {"Gnanasekaran", ""},
    {"Catherwood", "Katherwood"}, {"Philips", "Phillips"}, {"Stevens", "Stephens"},
    {"Reid", "Reed"}, {"Meyer", "Meier"}, {"Schäfer", "Schaefer"}, {"Høeg", "Hoeg"},
    {"Ó Súilleabháin", "O'Sullivan"}, {"Abu-Bakr", ""}, {"Okonkwo", ""}, {"Singh", ""},
    {"Patel", ""}, {"Kumar", ""}, {"Haddad", ""}, {"Rossi", ""}, {"Bianchi", ""},
    {"Janssen", "Jansen"}, {"Virtanen", ""}, {"Novak", "Nowak"},
};

constexpr City kCities[] = {
    {"San Francisco", "CA", "94199", "US", "415 628", 37.7749, -122.4194},
    {"New York", "NY", "10099", "US", "212 646 917", 40.7128, -74.0060},
    {"Austin", "TX", "78799", "US", "512 737", 30.2672, -97.7431},
    {"Chicago", "IL", "60699", "US", "312 773", 41.8781, -87.6298},
    {"Seattle", "WA", "98199", "US", "206", 47.6062, -122.3321},
    {"Boston", "MA", "02199", "US", "617 857", 42.3601, -71.0589},
    {"Denver", "CO", "80299", "US", "303 720", 39.7392, -104.9903},
    {"Atlanta", "GA", "30399", "US", "404 678", 33.7490, -84.3880},
    {"Miami", "FL", "33199", "US", "305 786", 25.7617, -80.1918},
    {"Portland", "OR", "97299", "US", "503 971", 45.5152, -122.6784},
    {"Toronto", "ON", "M5H 2N2", "CA", "416 647", 43.6532, -79.3832},
    {"Montréal", "QC", "H2Y 1C6", "CA", "514 438", 45.5017, -73.5673},
    {"London", "", "EC1A 1BB", "GB", "20", 51.5074, -0.1278},
    {"Manchester", "", "M1 1AE", "GB", "161", 53.4808, -2.2426},
    {"Berlin", "Berlin", "10999", "DE", "30", 52.5200, 13.4050},
    {"München", "Bayern", "80999", "DE", "89", 48.1351, 11.5820},
    {"Köln", "Nordrhein-Westfalen", "50999", "DE", "221", 50.9375, 6.9603},
    {"Paris", "Île-de-France", "75099", "FR", "1", 48.8566, 2.3522},
    {"Lyon", "Auvergne-Rhône-Alpes", "69009", "FR", "4", 45.7640, 4.8357},
    {"Zürich", "ZH", "8099", "CH", "44", 47.3769, 8.5417},
    {"København", "", "1099", "DK", "", 55.6761, 12.5683},
    {"Kraków", "małopolskie", "30-999", "PL", "12", 50.0647, 19.9450},
    {"東京", "東京都", "100-0001", "JP", "3", 35.6762, 139.6503},
    {"Sydney", "NSW", "2000", "AU", "2", -33.8688, 151.2093},
    {"São Paulo", "SP", "01999-000", "BR", "11", -23.5505, -46.6333},
};

constexpr Country kCountries[] = {
    {"US", "United States|USA|US|United States of America|U.S.A.", "1"},
    {"CA", "Canada|CA", "1"},
    {"GB", "United Kingdom|UK|Great Britain|GB", "44"},
    {"DE", "Germany|Deutschland|DE", "49"},
    {"FR", "France|FR", "33"},
    {"CH", "Switzerland|Schweiz|CH", "41"},
    {"DK", "Denmark|Danmark|DK", "45"},
    {"PL", "Poland|Polska|PL", "48"},
    {"JP", "Japan|日本|JP", "81"},
    {"AU", "Australia|AU", "61"},
    {"BR", "Brazil|Brasil|BR", "55"},
};

constexpr std::string_view kCompanyStems[] = {
    "Acme", "Northwind", "Blue Harbor", "Summit Peak", "Redwood", "Silverline", "Brightwater",
    "Ironbridge", "Oakridge", "Pinecrest", "Greenfield", "Meridian", "Atlas", "Horizon",
    "Keystone", "Lakeside", "Riverbend", "Crescent", "Evergreen", "Falcon", "Granite",
    "Juniper", "Liberty", "Maple Leaf", "Nimbus", "Orion", "Pioneer", "Quantum", "Sterling",
    "Titan", "Unity", "Vanguard", "Willow Creek", "Zenith", "Apex", "Beacon", "Cobalt",
    "Delta", "Echo Valley", "Fjord", "Nordlicht", "Müller & Söhne", "Café Lumière",
    "Øresund", "Łódź", "東京精密", "Ærø", "Smith, Jones & Partners", "The \"Blue Door\"",
    "O'Reilly", "Sunrise", "Harborview", "Kingfisher", "Lighthouse", "Midland", "Northstar",
    "Oceanic", "Paramount", "Redstone", "Skyline", "Trident", "Westbrook", "Yellowstone",
    "Bergmann", "Castellano", "Dalgaard", "Eriksen", "Fontaine", "Gallagher", "Hoffmann",
    "Ishikawa", "Jansen", "Kowalczyk", "Lindqvist", "Moreau", "Novák", "Okafor", "Petrov",
    "Quintero", "Rasmussen", "Sørensen", "Tanaka", "Ueda", "Valdés", "Weber", "Xu",
    "Yamamoto", "Zimmermann", "Alpine", "Bayside", "Cedar", "Driftwood", "Emerald",
    "Foxglove", "Goldcrest", "Highland", "Ivory", "Jade", "Kestrel", "Larkspur", "Magnolia",
};

constexpr std::string_view kCompanyWords[] = {
    "Systems", "Logistics", "Holdings", "Foods", "Partners", "Labs", "Media", "Energy",
    "Consulting", "Manufacturing", "Health", "Financial", "Software", "Solutions",
    "Industries", "Analytics", "Robotics", "Textiles", "Brewing", "Pharma", "Motors",
    "Realty", "Insurance", "Capital", "Design", "Engineering", "Farms", "Outfitters",
    "Freight", "Networks", "Bakery", "Dental", "Aerospace", "Chemicals", "Hotels",
};

constexpr LegalForm kLegalForms[] = {
    {"Corporation", "corp"}, {"Corp.", "corp"}, {"Corp", "corp"},
    {"Incorporated", "inc"}, {"Inc.", "inc"}, {"Inc", "inc"},
    {"Company", "co"}, {"Co.", "co"},
    {"Limited", "ltd"}, {"Ltd.", "ltd"}, {"Ltd", "ltd"},
    {"LLC", "llc"}, {"L.L.C.", "llc"}, {"LLP", "llp"},
    {"PLC", "plc"}, {"plc", "plc"}, {"GmbH", "gmbh"}, {"AG", "ag"},
    {"S.A.", "sa"}, {"SARL", "sarl"}, {"B.V.", "bv"}, {"Pty Ltd", "pty"}, {"K.K.", "kk"},
};

constexpr std::string_view kStreetNames[] = {
    "Main", "Oak", "Pine", "Maple", "Cedar", "Elm", "Washington", "Lake", "Hill", "Park",
    "Sunset", "Highland", "Market", "Mission", "Church", "Mill", "River", "Spring", "Union",
    "Bahnhof", "Haupt", "Linden", "Goethe", "Königsallee", "Rivoli", "Victor Hugo", "Baker",
    "Abbey", "King's", "Queen", "Harbour", "Mosman", "Shean", "Giblin", "Bellchambers",
    "Stroget", "Floriańska", "Omotesandō", "Paulista",
};

constexpr std::string_view kStreetKinds[] = {"Street", "Avenue", "Road", "Lane", "Boulevard",
                                             "Drive", "Place", "Court", "Way", "Terrace"};
constexpr std::string_view kStreetKindAbbreviations[] = {"St.", "Ave", "Rd", "Ln",  "Blvd",
                                                         "Dr.", "Pl",  "Ct", "Wy", "Tce"};

constexpr std::string_view kSecondLines[] = {"Suite 400", "Floor 3", "Apt 5B", "Unit 12",
                                             "Building C", "PO Box 118", "c/o Reception",
                                             "2nd Floor, East Wing"};

constexpr std::string_view kFreeMailDomains[] = {"gmail.com", "yahoo.com", "outlook.com",
                                                 "hotmail.com", "icloud.com", "gmx.de",
                                                 "web.de", "proton.me", "orange.fr",
                                                 "mail.ru", "qq.com"};

constexpr std::string_view kTopLevelDomains[] = {"com", "com", "com", "net", "io", "co.uk",
                                                 "de", "fr", "ch", "co.jp", "com.au", "org"};

constexpr std::string_view kJobTitles[] = {
    "CEO", "CFO", "CTO", "VP Sales", "VP, Marketing & Communications", "Sales Manager",
    "Account Executive", "Office Manager", "Procurement Lead", "IT Director",
    "Head of Operations", "Software Engineer", "Buyer", "Director of \"Special\" Projects",
    "Geschäftsführer", "Directrice commerciale", "営業部長", "Consultant", "Analyst",
    "Customer Success Manager", "Chief of Staff", "Facilities Coordinator",
};

constexpr std::string_view kDepartments[] = {"Sales", "Marketing", "Finance", "IT",
                                             "Operations", "Procurement", "Legal", "R&D",
                                             "Customer Service", "Human Resources", "Einkauf"};

constexpr std::string_view kWords[] = {
    "meeting", "follow", "up", "contract", "renewal", "pricing", "discount", "quote",
    "shipment", "delayed", "invoice", "payment", "received", "call", "back", "next", "week",
    "asked", "about", "new", "product", "line", "demo", "scheduled", "budget", "approved",
    "pending", "review", "legal", "signed", "trial", "users", "license", "support", "issue",
    "resolved", "escalated", "customer", "happy", "concerned", "timeline", "Q3", "Q4",
    "onboarding", "training", "site", "visit", "warehouse", "integration", "API", "export",
    "backup", "migration", "the", "a", "and", "with", "for", "to", "from", "on", "in",
    "their", "our", "team", "manager", "director", "wants", "needs", "will", "should",
};

constexpr std::string_view kEmoji[] = {
    "😀", "🚀", "✅", "👍🏽", "👨‍👩‍👧", "🇩🇪", "❤️", "☕", "📎", "🎉", "⚠️", "🙏🏻",
};

constexpr std::string_view kForeignPhrases[] = {
    "お世話になっております。", "请尽快回复。", "Спасибо за встречу.", "شكرا جزيلا",
    "Ευχαριστώ πολύ.", "Grüße aus München", "Ça marche très bien.", "¿Podemos hablar mañana?",
    "naïve café façade", "Zoë’s résumé", "Ångström", "ﬁnancial ligature",
};

}  // namespace

std::span<const GivenName> givenNames() { return kGivenNames; }
std::span<const NativeName> nativeNames() { return kNativeNames; }
std::span<const FamilyName> familyNames() { return kFamilyNames; }
std::span<const City> cities() { return kCities; }
std::span<const Country> countries() { return kCountries; }

const Country* country(std::string_view code) {
  for (const auto& c : kCountries) {
    if (c.code == code) return &c;
  }
  return nullptr;
}

std::span<const std::string_view> companyStems() { return kCompanyStems; }
std::span<const std::string_view> companyWords() { return kCompanyWords; }
std::span<const LegalForm> legalForms() { return kLegalForms; }
std::span<const std::string_view> streetNames() { return kStreetNames; }
std::span<const std::string_view> streetKinds() { return kStreetKinds; }
std::span<const std::string_view> streetKindAbbreviations() { return kStreetKindAbbreviations; }
std::span<const std::string_view> secondLines() { return kSecondLines; }
std::span<const std::string_view> freeMailDomains() { return kFreeMailDomains; }
std::span<const std::string_view> topLevelDomains() { return kTopLevelDomains; }
std::span<const std::string_view> jobTitles() { return kJobTitles; }
std::span<const std::string_view> departments() { return kDepartments; }
std::span<const std::string_view> words() { return kWords; }
std::span<const std::string_view> emoji() { return kEmoji; }
std::span<const std::string_view> foreignPhrases() { return kForeignPhrases; }

}  // namespace corvane::orgsim::WordLists
